#include "agent/task_database/store_watchdog.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
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
    : watchdog_(watchdog), socket_(fcntl(socket, F_DUPFD_CLOEXEC, 0)) {
  try {
    if (!socket_) throw std::system_error(errno, std::generic_category());
    watchdog_->Add(socket_.Get(), deadline + kSlack);
  } catch (const std::system_error& error) {
    throw StoreError(std::string("the connection to the database cannot be watched: ") +
                     error.what());
  }
}

StoreWatchdog::Watch::~Watch() {
  const std::lock_guard lock(watchdog_->mutex_);
  watchdog_->watched_.erase(socket_.Get());
  socket_.Close();
}

void StoreWatchdog::Add(int socket, Deadline end) {
  const std::lock_guard lock(mutex_);
  if (!thread_.joinable()) thread_ = std::thread(&StoreWatchdog::Run, this);
  watched_[socket] = end;
  changed_.notify_all();
}

bool StoreWatchdog::Watch::IsOver() const {
  const std::lock_guard lock(watchdog_->mutex_);
  return !watchdog_->watched_.contains(socket_.Get());
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
