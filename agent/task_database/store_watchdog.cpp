#include "agent/task_database/store_watchdog.h"

#include <sys/socket.h>

#include <algorithm>
#include <system_error>

StoreWatchdog::~StoreWatchdog() {
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

StoreWatchdog::Watch::Watch(StoreWatchdog* watchdog, int socket, Deadline deadline)
    : watchdog_(watchdog), socket_(socket) {
  const std::lock_guard lock(watchdog_->mutex_);
  try {
    if (!watchdog_->thread_.joinable()) {
      watchdog_->thread_ = std::thread(&StoreWatchdog::Run, watchdog_);
    }
  } catch (const std::system_error& error) {
    throw StoreError(std::string("cannot watch over the connections to the database: ") +
                     error.what());
  }
  watchdog_->watched_[socket] = deadline + kSlack;
  watchdog_->changed_.notify_all();
}

StoreWatchdog::Watch::~Watch() {
  const std::lock_guard lock(watchdog_->mutex_);
  watchdog_->watched_.erase(socket_);
}

bool StoreWatchdog::Watch::IsOver() const {
  const std::lock_guard lock(watchdog_->mutex_);
  return !watchdog_->watched_.contains(socket_);
}

void StoreWatchdog::Run() {
  std::unique_lock lock(mutex_);
  while (!isEnding_) {
    const auto first =
        std::ranges::min_element(watched_, {}, [](const auto& one) { return one.second; });
    if (first == watched_.end()) {
      changed_.wait(lock);
    } else if (const Deadline end = first->second; std::chrono::steady_clock::now() < end) {
      changed_.wait_until(lock, end);
    } else {
      shutdown(first->first, SHUT_RDWR);
      watched_.erase(first);
    }
  }
}
