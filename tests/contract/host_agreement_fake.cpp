#include <memory>

#include "tests/contract/host_agreement.h"
#include "tests/fake_host/fake_host.h"

namespace {

std::unique_ptr<FakeHost> host;

}  // namespace

void ScriptAnswer(const char* function, int64_t answer) {
  host->Answer(function, answer);
}

void SetUpHost() {
  host = std::make_unique<FakeHost>();
}

void TearDownHost() {
  host.reset();
}
