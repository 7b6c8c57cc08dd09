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

#include "agent/libZel/platform/posix/descriptor_io.h"

namespace {

constexpr int kLookAgainMs = 500;

void RequireCall(bool holds, const char* what) {
  if (!holds) throw std::system_error(errno, std::generic_category(), what);
}

bool AddTo(const UniqueFd& events, const UniqueFd& watched) {
  epoll_event event{};
  // Told once: a child that a debugger has not let go yet would keep the thread busy otherwise.
  event.events = EPOLLIN | EPOLLET;
  return ::epoll_ctl(events.Get(), EPOLL_CTL_ADD, watched.Get(), &event) == 0;
}

// Since Linux 5.3; the descriptor is closed in programs by itself.
UniqueFd OpenProcess(pid_t child) {
  return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
}

bool HasChildEnded(pid_t child) {
  return Uninterrupted([&] { return ::waitpid(child, nullptr, WNOHANG); }) != 0;
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
  RequireCall(wakeUp_ && events_, "the means to wait for programs");
  RequireCall(AddTo(events_, wakeUp_), "epoll_ctl");
  thread_ = std::thread([this] { Run(); });
}

ChildReaper::~ChildReaper() {
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
  }
  Wake();
  thread_.join();
  for (const Child& child : arrived_) Forget(child);
}

void ChildReaper::Wake() const {
  const uint64_t one = 1;
  // Fails only when so many calls are counted that the thread is awake anyway.
  [[maybe_unused]] const ssize_t written = ::write(wakeUp_.Get(), &one, sizeof one);
}

UniqueFd ChildReaper::OpenWatched(pid_t child) const {
  UniqueFd descriptor = OpenProcess(child);
  if (descriptor && !AddTo(events_, descriptor)) descriptor.Close();
  return descriptor;
}

void ChildReaper::Watch(pid_t child) noexcept {
  try {
    std::list<Child> one;
    one.push_back({child, OpenWatched(child)});
    const std::lock_guard lock(mutex_);
    arrived_.splice(arrived_.end(), one);
  } catch (const std::exception&) {
    // No memory: better a zombie than an agent that ends.
  }
  Wake();
}

void ChildReaper::Forget(const Child& child) const {
  if (!child.descriptor) return;
  // Closing alone would not do while a program that is just being started holds a copy.
  ::epoll_ctl(events_.Get(), EPOLL_CTL_DEL, child.descriptor.Get(), nullptr);
}

void ChildReaper::WaitForNews(const std::list<Child>& children) const {
  const bool areAllWatched = std::ranges::all_of(
      children, [](const Child& child) { return static_cast<bool>(child.descriptor); });
  epoll_event event;
  ::epoll_wait(events_.Get(), &event, 1, areAllWatched ? -1 : kLookAgainMs);
  uint64_t count;
  [[maybe_unused]] const ssize_t read = ::read(wakeUp_.Get(), &count, sizeof count);
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
      if (!HasChildEnded(child.id)) return false;
      Forget(child);
      return true;
    });
    WaitForNews(children);
  }
  for (const Child& child : children) Forget(child);
}
