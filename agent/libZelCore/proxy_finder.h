#pragma once

#include <chrono>
#include <mutex>
#include <optional>
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

  /// Empty when there is none, and when nobody is logged on. Where the system has never told who
  /// is, that of the newest proxy (`core_platform::DefaultProxyPipe`). Looks at the sessions five
  /// times a second at most; waits up to five seconds for a proxy that is being started.
  std::string Pipe();

 private:
  struct Seen {
    std::optional<std::vector<UserSession>> sessions;
    /// Whether the system has told once: that it does not now is then a failure.
    bool canTell = false;
  };

  Seen Look();

  const std::string configured_;
  ProxySupervisor* const supervisor_;
  std::mutex mutex_;
  Seen seen_;
  std::chrono::steady_clock::time_point readAt_{};
};
