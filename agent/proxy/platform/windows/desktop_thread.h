#pragma once

#include <windows.h>

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>

#include "agent/libZel/platform/windows/unique_handle.h"

/// A call came after the desktop's end, or was not begun when it came.
class DesktopEnded : public std::runtime_error {
 public:
  DesktopEnded() : std::runtime_error("the proxy shows no windows any more") {}
};

/// Has work done on the thread that made it, which takes messages.
class DesktopThread {
 public:
  /// Throws std::runtime_error where the system has no event for it.
  DesktopThread();
  DesktopThread(const DesktopThread&) = delete;
  DesktopThread& operator=(const DesktopThread&) = delete;

  /// A window of the thread, to which `Wake` posts `message`. To be told before other threads call.
  void SetWindow(HWND window, UINT message);

  /// Returns when the work is done, and throws what it threw. Called on the thread itself it does
  /// it at once. Any thread may call. Throws DesktopEnded after `Close`.
  void Do(const std::function<void()>& work);

  /// Has the thread call `DoNext` and whatever else it looks after. It learns of it twice: `Woken`
  /// reaches its own loop even when the queue of messages is full; the message reaches it while the
  /// system takes the messages, as when somebody drags a window. Any thread may call.
  void Wake();
  /// Signalled until a wait has seen it.
  HANDLE Woken() const { return woken_.Get(); }

  /// Does the oldest work that waits, if any: what else is under way gets its turn between.
  void DoNext();

  /// Has all calls that wait, and those that come, throw DesktopEnded.
  void Close();

 private:
  struct Task {
    const std::function<void()>* work;
    std::promise<void> done;
  };

  bool Take(Task& task);

  const DWORD id_ = GetCurrentThreadId();
  const UniqueHandle woken_;
  HWND window_ = nullptr;
  UINT message_ = 0;
  // Whether the message is on its way: the queue is for others too.
  std::atomic<bool> isPosted_ = false;

  std::mutex mutex_;
  std::deque<Task> waiting_;
  bool isClosed_ = false;
};
