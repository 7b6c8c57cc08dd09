#include "agent/libZel/last_extraction.h"

#include <atomic>

#include "agent/libZel/per_thread.h"

namespace {

struct LastExtraction {
  const void* owner = nullptr;
  ZelString target;
  bool cameOut = false;
};

LastExtraction& OfThisThread() {
  static PerThread<LastExtraction> last;
  return last.Get();
}

// How many archives something is remembered of: most processes extract nothing, most of the time.
std::atomic<int> remembered{0};

}  // namespace

void RememberExtraction(const void* owner, const ZelString& target, bool cameOut) noexcept {
  try {
    LastExtraction& last = OfThisThread();
    last.target = target;
    last.cameOut = cameOut;
    if (last.owner == nullptr) ++remembered;
    last.owner = owner;
  } catch (...) {
    ForgetExtraction(owner);
  }
}

void ForgetExtraction(const void* owner) noexcept {
  if (remembered == 0) return;
  try {
    LastExtraction& last = OfThisThread();
    if (last.owner != owner) return;
    last.owner = nullptr;
    last.target.Clear();
    --remembered;
  } catch (...) {
    // A thread without memory for its own data has none to forget.
  }
}

std::optional<bool> LastExtractionTo(const ZelString& target) {
  if (remembered == 0) return std::nullopt;
  const LastExtraction& last = OfThisThread();
  if (last.owner == nullptr || last.target != target) return std::nullopt;
  return last.cameOut;
}
