#include "tests/agent/child_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <system_error>

// The header of glibc 2.36 forgets that it may be read as C++.
extern "C" {
#include <sys/pidfd.h>
}

namespace {

[[noreturn]] void Run(ChildProcess::Task task) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (task == ChildProcess::Task::kWait) {
    for (;;) pause();
  }
  const rlimit aMinute{60, 60};
  setrlimit(RLIMIT_CPU, &aMinute);
  std::atomic<unsigned> count = 0;
  for (;;) ++count;
}

}  // namespace

struct ChildProcess::Implementation {
  pid_t id = 0;
  int handle = -1;
  bool hasEnded = false;
};

ChildProcess::ChildProcess(Task task) : implementation_(std::make_unique<Implementation>()) {
  Implementation& child = *implementation_;
  child.id = fork();
  if (child.id == 0) Run(task);
  if (child.id > 0) child.handle = pidfd_open(child.id, 0);
  if (child.handle < 0) throw std::system_error(errno, std::system_category(), "start of a child");
}

ChildProcess::~ChildProcess() {
  Implementation& child = *implementation_;
  if (!child.hasEnded) {
    kill(child.id, SIGKILL);
    waitpid(child.id, nullptr, 0);
  }
  close(child.handle);
}

uint32_t ChildProcess::Id() const {
  return static_cast<uint32_t>(implementation_->id);
}

bool ChildProcess::WaitForEnd() {
  constexpr int kTimeoutMs = 10'000;
  Implementation& child = *implementation_;
  pollfd waited{child.handle, POLLIN, 0};
  if (poll(&waited, 1, kTimeoutMs) != 1) return false;
  child.hasEnded = waitpid(child.id, nullptr, 0) == child.id;
  return child.hasEnded;
}
