#include "agent/proxy/platform/windows/desktop_thread.h"

#include <exception>
#include <utility>

DesktopThread::DesktopThread() : woken_(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
  if (!woken_) throw std::runtime_error("the system has no event for the desktop's thread");
}

void DesktopThread::SetWindow(HWND window, UINT message) {
  window_ = window;
  message_ = message;
}

void DesktopThread::Do(const std::function<void()>& work) {
  std::future<void> done;
  const bool isOwnThread = GetCurrentThreadId() == id_;
  {
    const std::lock_guard lock(mutex_);
    if (isClosed_) throw DesktopEnded();
    if (!isOwnThread) {
      Task task{&work, {}};
      done = task.done.get_future();
      waiting_.push_back(std::move(task));
    }
  }
  if (isOwnThread) {
    work();
    return;
  }
  Wake();
  done.get();
}

void DesktopThread::Wake() {
  SetEvent(woken_.Get());
  if (isPosted_.exchange(true)) return;
  if (!PostMessageW(window_, message_, 0, 0)) isPosted_ = false;
}

bool DesktopThread::Take(Task& task) {
  const std::lock_guard lock(mutex_);
  if (waiting_.empty()) return false;
  task = std::move(waiting_.front());
  waiting_.pop_front();
  return true;
}

void DesktopThread::DoNext() {
  isPosted_ = false;
  Task task{};
  if (!Take(task)) return;
  try {
    (*task.work)();
    task.done.set_value();
  } catch (...) {
    task.done.set_exception(std::current_exception());
  }
  // For the next one.
  Wake();
}

void DesktopThread::Close() {
  std::deque<Task> abandoned;
  {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    abandoned.swap(waiting_);
  }
  for (Task& task : abandoned) {
    task.done.set_exception(std::make_exception_ptr(DesktopEnded()));
  }
}
