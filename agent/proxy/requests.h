#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "agent/proxy/caller.h"
#include "agent/proxy/dialog_fields.h"
#include "agent/proxy/dialogs.h"
#include "agent/proxy/lock_keeper.h"

/// What the proxy tells of itself and its session.
struct SessionFacts {
  std::string userName;
  std::string sessionId;
  std::string platform;
  uint32_t processId = 0;
  /// In seconds since 1970-01-01 UTC.
  int64_t startedAt = 0;
  /// The user's, as a tag ("de-AT").
  std::string language = "en";
};

/// How long the screen stays locked when nobody wants it to be any more.
constexpr std::chrono::milliseconds kLockGrace = std::chrono::seconds(30);

/// What all connections share: the session and the desktop of its user.
class ProxySession {
 public:
  /// `desktop` lives longer than this object; null where there is no display.
  ProxySession(SessionFacts facts, DialogWords words, Desktop* desktop, LockKeeper::Log log,
               std::chrono::milliseconds lockGrace = kLockGrace);
  ~ProxySession();

  const SessionFacts facts;
  const DialogWords words;
  Desktop* const desktop;
  DialogTable dialogs;
  LockKeeper lock;
};

/// Answers the requests that docs/proxy.md describes, for one connection; refuses all others.
/// `session` lives longer than the caller.
std::unique_ptr<Caller> MakeCaller(ProxySession& session);
