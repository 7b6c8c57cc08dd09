#include "tests/agent/posix/disk_waits.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

thread_local DiskWaits::Answer answerOfTest;

int Wait(long call, int file) {
  if (!answerOfTest) return static_cast<int>(syscall(call, file));
  const int error = answerOfTest(file);
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
  answerOfTest = std::move(answer);
}

DiskWaits::~DiskWaits() {
  answerOfTest = nullptr;
}
