#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

/// A call came after the desktop's end, or was not begun when it came.
class DesktopEnded : public std::runtime_error {
 public:
  DesktopEnded() : std::runtime_error("the desktop has ended") {}
};

/// Has work done on the thread that made it, which runs GLib's default main context.
class DesktopThread {
 public:
  DesktopThread();
  ~DesktopThread();
  DesktopThread(const DesktopThread&) = delete;
  DesktopThread& operator=(const DesktopThread&) = delete;

  /// Returns when the work is done, and throws what it threw, a Glib::Exception as
  /// std::runtime_error. Called on the thread itself it does
  /// it at once; else the thread's main loop does, before drawing and input. Any thread may call.
  void Do(const std::function<void()>& work);
  bool IsCurrent() const { return std::this_thread::get_id() == id_; }

  /// Has all other threads' calls that wait, and those that come, throw DesktopEnded.
  void Close();

 private:
  struct Queue;
  const std::thread::id id_;
  const std::shared_ptr<Queue> queue_;
};
