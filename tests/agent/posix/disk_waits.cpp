#include "tests/agent/posix/disk_waits.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

namespace {

std::mutex mutex;
DiskWaits::Answer answerOfTest;

DiskWaits::Answer CurrentAnswer() {
  const std::lock_guard lock(mutex);
  return answerOfTest;
}

int Wait(long call, int file) {
  const DiskWaits::Answer answer = CurrentAnswer();
  if (!answer) return static_cast<int>(syscall(call, file));
  const int error = answer(file);
  if (error == 0) return 0;
  errno = error;
  return -1;
}

}  // namespace

// The library calls these: the program's own names come before those of the system's library.
extern "C" int fsync(int file) {
  return Wait(SYS_fsync, file);
}

extern "C" int syncfs(int file) noexcept {
  return Wait(SYS_syncfs, file);
}

DiskWaits::DiskWaits(Answer answer) {
  const std::lock_guard lock(mutex);
  answerOfTest = std::move(answer);
}

DiskWaits::~DiskWaits() {
  const std::lock_guard lock(mutex);
  answerOfTest = nullptr;
}
