#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "agent/libZelCore/proxy_keeper.h"

/// The thread that sees to it that each graphical session has a proxy: it looks every two seconds,
/// and at once when somebody needs one. Any number of threads may call.
class ProxySupervisor {
 public:
  /// Throws std::system_error when there is no thread to be had.
  explicit ProxySupervisor(ProxySystem system,
                           std::chrono::milliseconds interval = std::chrono::seconds(2));
  /// Ends the proxies that it started.
  ~ProxySupervisor();
  ProxySupervisor(const ProxySupervisor&) = delete;
  ProxySupervisor& operator=(const ProxySupervisor&) = delete;

  /// Whether a proxy listens at `pipe`; where none does and one can be started now, after waiting
  /// for it up to `patience`.
  bool Ensure(const std::string& pipe, std::chrono::milliseconds patience);

 private:
  void Work();

  ProxyKeeper keeper_;  ///< the thread's alone
  const std::chrono::milliseconds interval_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable looked_;
  std::map<std::string, ProxyKeeper::State> states_;
  uint64_t looksBegun_ = 0;
  uint64_t looksDone_ = 0;
  uint64_t looksWanted_ = 0;  ///< somebody waits for the look of this number
  bool stopping_ = false;
  std::thread thread_;
};
