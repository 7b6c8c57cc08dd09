// host/libZel: mutexes that let threads in by the order in which they came, and tell whether one
// waits. So a test knows when an action that it has begun beside another one waits for that, and an
// action that lets go of its mutex on the way lets the other one in there.

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include "libZel/mutex.h"
#include "tests/fake_host/fake_host.h"

namespace {

/// The threads at one mutex: each takes a number.
struct Line {
  const ZelMutex* mutex = nullptr;
  uint64_t taken = 0;
  uint64_t called = 0;
};

std::mutex linesMutex;
std::condition_variable someoneIsCalled;
// Without memory of their own: tests let it run out.
std::array<Line, 4> lines;

Line& LineOf(const ZelMutex* mutex) {
  for (Line& line : lines) {
    if (!line.mutex) line.mutex = mutex;
    if (line.mutex == mutex) return line;
  }
  throw std::logic_error("the module has more mutexes than the fake host");
}

}  // namespace

void ZelMutex::Lock() {
  std::unique_lock lock(linesMutex);
  Line& line = LineOf(this);
  const uint64_t number = line.taken++;
  someoneIsCalled.wait(lock, [&] { return line.called == number; });
}

void ZelMutex::Unlock() {
  const std::lock_guard lock(linesMutex);
  ++LineOf(this).called;
  someoneIsCalled.notify_all();
}

bool FakeHost::HasWaitingThread() {
  const std::lock_guard lock(linesMutex);
  return std::any_of(lines.begin(), lines.end(),
                     [](const Line& line) { return line.taken > line.called + 1; });
}
