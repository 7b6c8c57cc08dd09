#include "agent/proxy/platform/posix/desktop_thread.h"

#include <glib.h>
#include <glibmm/exception.h>

#include <deque>
#include <exception>
#include <future>
#include <mutex>
#include <utility>

struct DesktopThread::Queue {
  struct Task {
    const std::function<void()>* work;
    std::promise<void> done;
  };
  std::mutex mutex;
  std::deque<Task> waiting;
  bool isClosed = false;

  // Hands out the oldest one, if there is any.
  bool Take(Task& task) {
    const std::lock_guard lock(mutex);
    if (waiting.empty()) return false;
    task = std::move(waiting.front());
    waiting.pop_front();
    return true;
  }

  // Failures of the toolkit's wrapper are no std::exception; callers know of nothing else.
  static void Call(const std::function<void()>& work) {
    try {
      work();
    } catch (const Glib::Exception& failure) {
      throw std::runtime_error(failure.what());
    }
  }

  static void Perform(Task& task) {
    try {
      Call(*task.work);
      task.done.set_value();
    } catch (...) {
      task.done.set_exception(std::current_exception());
    }
  }

  // One call for each task that was queued: what is under way gets its turn between them.
  static gboolean PerformNext(gpointer queue) {
    Task task;
    if ((*static_cast<std::shared_ptr<Queue>*>(queue))->Take(task)) Perform(task);
    return G_SOURCE_REMOVE;
  }

  static void Release(gpointer queue) { delete static_cast<std::shared_ptr<Queue>*>(queue); }
};

DesktopThread::DesktopThread()
    : id_(std::this_thread::get_id()), queue_(std::make_shared<Queue>()) {}

DesktopThread::~DesktopThread() {
  Close();
}

void DesktopThread::Do(const std::function<void()>& work) {
  if (IsCurrent()) {
    Queue::Call(work);
    return;
  }
  std::future<void> done;
  {
    const std::lock_guard lock(queue_->mutex);
    if (queue_->isClosed) throw DesktopEnded();
    queue_->waiting.push_back({&work, {}});
    done = queue_->waiting.back().done.get_future();
  }
  // Not g_main_context_invoke: it would run the work here while the loop does not run yet.
  ::g_idle_add_full(G_PRIORITY_HIGH, Queue::PerformNext, new std::shared_ptr<Queue>(queue_),
                    Queue::Release);
  done.get();
}

void DesktopThread::Close() {
  std::deque<Queue::Task> abandoned;
  {
    const std::lock_guard lock(queue_->mutex);
    queue_->isClosed = true;
    abandoned.swap(queue_->waiting);
  }
  for (Queue::Task& task : abandoned) {
    task.done.set_exception(std::make_exception_ptr(DesktopEnded()));
  }
}
