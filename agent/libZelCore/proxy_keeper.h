#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/libZelCore/session_program.h"

/// What the keeping of proxies asks of the system.
struct ProxySystem {
  /// None when the system does not tell.
  std::function<std::optional<std::vector<UserSession>>()> sessions;
  std::function<std::string(const UserSession&)> pipeOf;
  std::function<bool(const UserSession&)> isListening;
  std::function<bool(const UserSession&)> mayStart;
  std::function<StartedProgram(const UserSession&)> start;
};

/// The real one; `program` is the proxy's file.
ProxySystem RealProxySystem(std::filesystem::path program);

/// Keeps one proxy running at each place where one can listen for a graphical session: elsewhere
/// than on Windows a user with several sessions has one, in that which `UserSessions` names first.
/// A proxy that somebody else started is as good. Threads: one at a time.
class ProxyKeeper {
 public:
  using Clock = std::chrono::steady_clock;
  enum class State {
    kListening,
    kStarting,  ///< started and not listening yet
    kPaused,    ///< it could not be started, or ended; tried again later
  };

  /// Pauses between two starts of a proxy that keeps ending, each twice the one before.
  static constexpr std::chrono::seconds kShortestPause{1};
  static constexpr std::chrono::seconds kLongestPause{60};
  /// After so long a run the next end counts as the first.
  static constexpr std::chrono::seconds kSteadyRun{60};
  /// One that does not listen by then is ended.
  static constexpr std::chrono::seconds kListenPatience{30};

  explicit ProxyKeeper(ProxySystem system) : system_(std::move(system)) {}

  /// Looks at all sessions and starts what is missing; tells how each place is then.
  std::map<std::string, State> Look(Clock::time_point now);

  /// Ends the proxies that this object started.
  void EndAll();

 private:
  struct Kept {
    std::unique_ptr<SessionProgram> program;  ///< null for a proxy of somebody else, and for none
    bool isListening = false;
    Clock::time_point startedAt;
    Clock::time_point notBefore;
    std::chrono::seconds pause{0};
    std::string lastError;
  };

  void Tend(const UserSession& session, Kept& kept, Clock::time_point now);
  void Start(const UserSession& session, Kept& kept, Clock::time_point now);
  void Failed(const UserSession& session, Kept& kept, Clock::time_point now,
              const std::string& error);

  const ProxySystem system_;
  std::map<std::string, Kept> kept_;  ///< by pipe
};
