#include <memory>
#include <utility>

#include "tests/contract/host_agreement.h"
#include "tests/fake_host/fake_host.h"

namespace {

std::unique_ptr<FakeHost> host;

}  // namespace

void ScriptAnswer(const char* function, int64_t answer) {
  host->Answer(function, answer);
}

void ScriptText(const char* function, const std::string& text) {
  host->AnswerText(function, text);
}

void ScriptList(const char* function, const std::vector<std::string>& texts) {
  host->AnswerList(function, {texts.begin(), texts.end()});
}

void ScriptBytes(const char* function, const std::string& bytes) {
  host->AnswerBytes(function, bytes);
}

void ScriptDirectory(const std::vector<std::string>& names) {
  std::vector<FakeHost::DirectoryEntry> entries;
  for (const std::string& name : names) entries.push_back({name, 0});
  host->AnswerDirectory(std::move(entries));
}

void SetUpHost() {
  host = std::make_unique<FakeHost>();
}

void TearDownHost() {
  host.reset();
}
