#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/task_database/store_connection.h"

/// Breaks connections whose server does not answer in time: libpq would wait for it for ever. They
/// are watched by one thread, which starts with the first of them.
///
/// Threads: Watches may be made and end in several at once.
class StoreWatchdog {
 public:
  /// For a server that keeps time itself to say so.
  static constexpr std::chrono::seconds kSlack{1};

  StoreWatchdog() = default;
  /// All Watches have ended.
  ~StoreWatchdog();
  StoreWatchdog(const StoreWatchdog&) = delete;
  StoreWatchdog& operator=(const StoreWatchdog&) = delete;

  /// While it exists a socket is watched: a duplicate of the connection's, which libpq may close at
  /// any time, so that another file has its number.
  class Watch {
   public:
    /// Throws StoreError when no thread or duplicate can be made.
    Watch(StoreWatchdog* watchdog, int socket, Deadline deadline);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// Whether the connection was broken because its time was over.
    bool IsOver() const;

   private:
    StoreWatchdog* const watchdog_;
    UniqueFd socket_;
  };

 private:
  void Add(int socket, Deadline end);
  void Run();

  std::mutex mutex_;  ///< held while a socket is shut down or closed
  std::condition_variable changed_;
  std::map<int, Deadline> watched_;  ///< by socket; those shut down are not there any more
  bool isEnding_ = false;
  std::thread thread_;
};
