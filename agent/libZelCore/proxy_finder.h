#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "agent/libZel/user_sessions.h"
#include "agent/libZelCore/proxy_supervisor.h"

/// Where the proxy of the person at this machine listens. Any number of threads may call.
class ProxyFinder {
 public:
  /// `configured`: where it listens whoever is logged on; empty: look at the sessions. `supervisor`
  /// starts proxies where they are missing; may be null, else it outlives this object.
  ProxyFinder(std::string configured, ProxySupervisor* supervisor)
      : configured_(std::move(configured)), supervisor_(supervisor) {}

  /// Empty when there is none. Looks at the sessions once a second at most; waits up to five
  /// seconds for a proxy that is being started.
  std::string Pipe();

 private:
  std::vector<UserSession> Sessions();

  const std::string configured_;
  ProxySupervisor* const supervisor_;
  std::mutex mutex_;
  std::vector<UserSession> sessions_;
  std::chrono::steady_clock::time_point readAt_{};
};
