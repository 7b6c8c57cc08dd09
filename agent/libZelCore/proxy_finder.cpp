#include "agent/libZelCore/proxy_finder.h"

#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/session_program.h"

namespace {

constexpr std::chrono::seconds kStartPatience{5};
// One action asks several times; a switch of users is to be noticed soon.
constexpr std::chrono::milliseconds kSessionsAge{200};

}  // namespace

std::string ProxyFinder::Pipe() {
  if (!configured_.empty()) return configured_;
  const Seen seen = Look();
  if (!seen.canTell) return core_platform::DefaultProxyPipe();
  if (!seen.sessions || seen.sessions->empty()) return {};

  // No other session's: what is asked or locked is meant for whom the screen belongs to.
  const UserSession& session = seen.sessions->front();
  std::string pipe = ProxyPipeOf(session);
  if (supervisor_ && session.isGraphical && !pipe.empty())
    supervisor_->Ensure(pipe, kStartPatience);
  return HasProxyPipe(session) ? pipe : std::string();
}

ProxyFinder::Seen ProxyFinder::Look() {
  const std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (readAt_ == std::chrono::steady_clock::time_point() || now - readAt_ > kSessionsAge) {
    seen_.sessions = UserSessions();
    seen_.canTell = seen_.canTell || seen_.sessions;
    readAt_ = std::chrono::steady_clock::now();
  }
  return seen_;
}
