#include "agent/libZel/platform/posix/child_reaper.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace {

constexpr int kLookAgainMs = 500;

int MakeWakeUp() {
  const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return descriptor;
}

// Since Linux 5.3; the descriptor is closed in programs by itself.
int OpenProcess(pid_t child) {
  return static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
}

bool HasEnded(pid_t child) {
  pid_t answer;
  do {
    answer = ::waitpid(child, nullptr, WNOHANG);
  } while (answer < 0 && errno == EINTR);
  return answer != 0;
}

// Keeps signals away from the thread that is made meanwhile: the program's own ones handle them.
class NoSignals {
 public:
  NoSignals() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~NoSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  NoSignals(const NoSignals&) = delete;
  NoSignals& operator=(const NoSignals&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace

ChildReaper& ChildReaper::Instance() {
  static ChildReaper reaper;
  return reaper;
}

ChildReaper::ChildReaper() : wakeUp_(MakeWakeUp()) {
  const NoSignals noSignals;
  try {
    thread_ = std::thread([this] { Run(); });
  } catch (...) {
    ::close(wakeUp_);
    throw;
  }
}

ChildReaper::~ChildReaper() {
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
  }
  Wake();
  thread_.join();
  ::close(wakeUp_);
}

void ChildReaper::Wake() const {
  const uint64_t one = 1;
  // Fails only when so many calls are counted that the thread is awake anyway.
  [[maybe_unused]] const ssize_t written = ::write(wakeUp_, &one, sizeof one);
}

void ChildReaper::Watch(pid_t child) noexcept {
  const int descriptor = OpenProcess(child);
  try {
    const std::lock_guard lock(mutex_);
    arrived_.push_back({child, descriptor});
  } catch (const std::exception&) {
    // No memory: better a zombie than an agent that ends.
    if (descriptor >= 0) ::close(descriptor);
  }
  Wake();
}

void ChildReaper::WaitForNews(const std::vector<Child>& children) const {
  std::vector<pollfd> watched{{wakeUp_, POLLIN, 0}};
  int timeoutMs = -1;
  for (const Child& child : children) {
    if (child.descriptor >= 0) {
      watched.push_back({child.descriptor, POLLIN, 0});
    } else {
      timeoutMs = kLookAgainMs;
    }
  }
  ::poll(watched.data(), watched.size(), timeoutMs);
  uint64_t count;
  [[maybe_unused]] const ssize_t read = ::read(wakeUp_, &count, sizeof count);
}

void ChildReaper::Run() {
  std::vector<Child> children;
  for (;;) {
    {
      const std::lock_guard lock(mutex_);
      if (isStopping_) break;
      children.insert(children.end(), arrived_.begin(), arrived_.end());
      arrived_.clear();
    }
    std::erase_if(children, [](const Child& child) {
      if (!HasEnded(child.id)) return false;
      if (child.descriptor >= 0) ::close(child.descriptor);
      return true;
    });
    WaitForNews(children);
  }
  const std::lock_guard lock(mutex_);
  children.insert(children.end(), arrived_.begin(), arrived_.end());
  for (const Child& child : children) {
    if (child.descriptor >= 0) ::close(child.descriptor);
  }
}
