#include "agent/libZel/platform/posix/child_reaper.h"

#include <signal.h>
#include <sys/epoll.h>
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

int Checked(int descriptor, const char* what) {
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), what);
  return descriptor;
}

bool Add(int events, int descriptor) {
  epoll_event event{};
  // Told once: a child that a debugger has not let go yet would keep the thread busy otherwise.
  event.events = EPOLLIN | EPOLLET;
  return ::epoll_ctl(events, EPOLL_CTL_ADD, descriptor, &event) == 0;
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

// Destroyed with the library: nobody may start programs any more when that goes.
ChildReaper& ChildReaper::Instance() {
  static ChildReaper reaper;
  return reaper;
}

ChildReaper::ChildReaper()
    : wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), events_(::epoll_create1(EPOLL_CLOEXEC)) {
  const NoSignals noSignals;
  try {
    Checked(wakeUp_, "eventfd");
    Checked(events_, "epoll_create1");
    if (!Add(events_, wakeUp_)) Checked(-1, "epoll_ctl");
    thread_ = std::thread([this] { Run(); });
  } catch (...) {
    Close();
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
  for (const Child& child : arrived_) Forget(child);
  Close();
}

void ChildReaper::Close() const {
  if (wakeUp_ >= 0) ::close(wakeUp_);
  if (events_ >= 0) ::close(events_);
}

void ChildReaper::Wake() const {
  const uint64_t one = 1;
  // Fails only when so many calls are counted that the thread is awake anyway.
  [[maybe_unused]] const ssize_t written = ::write(wakeUp_, &one, sizeof one);
}

int ChildReaper::OpenWatched(pid_t child) const {
  const int descriptor = OpenProcess(child);
  if (descriptor < 0 || Add(events_, descriptor)) return descriptor;
  ::close(descriptor);
  return -1;
}

void ChildReaper::Watch(pid_t child) noexcept {
  try {
    std::list<Child> one{{child, -1}};
    one.front().descriptor = OpenWatched(child);
    const std::lock_guard lock(mutex_);
    arrived_.splice(arrived_.end(), one);
  } catch (const std::exception&) {
    // No memory: better a zombie than an agent that ends.
  }
  Wake();
}

void ChildReaper::Forget(const Child& child) const {
  if (child.descriptor < 0) return;
  // Closing alone would not do while a program that is just being started holds a copy.
  ::epoll_ctl(events_, EPOLL_CTL_DEL, child.descriptor, nullptr);
  ::close(child.descriptor);
}

void ChildReaper::WaitForNews(const std::list<Child>& children) const {
  const bool areAllWatched =
      std::ranges::all_of(children, [](const Child& child) { return child.descriptor >= 0; });
  epoll_event event;
  ::epoll_wait(events_, &event, 1, areAllWatched ? -1 : kLookAgainMs);
  uint64_t count;
  [[maybe_unused]] const ssize_t read = ::read(wakeUp_, &count, sizeof count);
}

void ChildReaper::Run() {
  std::list<Child> children;
  for (;;) {
    {
      const std::lock_guard lock(mutex_);
      children.splice(children.end(), arrived_);
      if (isStopping_) break;
    }
    std::erase_if(children, [this](const Child& child) {
      if (!HasEnded(child.id)) return false;
      Forget(child);
      return true;
    });
    WaitForNews(children);
  }
  for (const Child& child : children) Forget(child);
}
