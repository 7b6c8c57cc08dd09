#include "libZel/desktop_lock.h"

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "agent/libZel/boundary.h"
#include "agent/libZel/proxy_connection.h"

using proxy_protocol::After, proxy_protocol::Deadline, proxy_protocol::Field;

namespace {

/// The connection over which this process has locked a desktop: the proxy unlocks some time after
/// it has ended. So a connection that has broken because an answer was late is kept until another
/// one holds the lock.
class LockConnection {
 public:
  explicit LockConnection(const ZelString& pipe) : pipe_(pipe) {}

  bool Lock() {
    const std::lock_guard lock(mutex_);
    const Told told = Ask("lock", {});
    // Nobody holds the lock when the proxy cannot lock; without an answer all is as before.
    if (told != Told::kNothing) isLocked_ = told == Told::kDone;
    LetGoIfUnlocked();
    return told == Told::kDone;
  }

  bool Unlock() {
    const std::lock_guard lock(mutex_);
    return AskToUnlock();
  }

  /// Unlocks where this process has locked.
  void Release() {
    const std::lock_guard lock(mutex_);
    if (isLocked_) AskToUnlock();
  }

  bool SetText(const ZelString& title, const ZelString& text) {
    const std::lock_guard lock(mutex_);
    const Told told = Ask(
        "lock-text", {{"title", std::string(title.Utf8())}, {"text", std::string(text.Utf8())}});
    LetGoIfUnlocked();
    return told == Told::kDone;
  }

 private:
  using Connection = XmlProxyClient::Connection;
  /// What the proxy has told: nothing at all, in time, or that something is done or refused.
  enum class Told { kNothing, kDone, kRefused };

  // Without an answer the proxy unlocks when it sees that the connection has ended.
  bool AskToUnlock() {
    isLocked_ = false;
    const bool isUnlocked = Ask("unlock", {}) == Told::kDone;
    LetGoIfUnlocked();
    return isUnlocked;
  }

  // It would only keep a place at the proxy.
  void LetGoIfUnlocked() {
    if (!isLocked_) connection_.reset();
  }

  // Over the connection that is there or, when that has broken or there is none, a new one.
  Told Ask(const std::string& request, const std::vector<Field>& fields) {
    if (connection_) {
      const auto answer = connection_->Ask(request, fields);
      if (answer.reply) return Judge(request, answer);
    }
    const Deadline deadline = After(std::chrono::milliseconds(kProxyTimeoutMs));
    if (const Told told = Replace(deadline); told != Told::kDone) return told;
    return Judge(request, connection_->Ask(request, fields, deadline));
  }

  // Puts a new connection in the place of the one that is there, which ends no sooner than the new
  // one holds what it held. Otherwise all stays as it is.
  Told Replace(Deadline deadline) {
    auto next = OpenProxyConnection(pipe_, kProxyTimeoutMs);
    if (!next) return Told::kNothing;
    next->HoldOn();
    // Another process knows nothing of the lock, which went with the former one.
    if (connection_ && connection_->Proxy() != next->Proxy()) isLocked_ = false;
    if (isLocked_) {
      const Told told = Judge("lock", next->Ask("lock", {}, deadline));
      if (told == Told::kRefused) isLocked_ = false;
      if (told != Told::kDone) return told;
    }
    connection_ = std::move(next);
    return Told::kDone;
  }

  Told Judge(const std::string& request, const Connection::Answer& answer) const {
    const std::string why = WhyFailed(answer);
    if (why.empty()) return Told::kDone;
    LibraryLog().WarningWithNL("\"%s\" failed for the desktop at \"%S\": %S", request, pipe_, why);
    return answer.reply ? Told::kRefused : Told::kNothing;
  }

  const ZelString pipe_;
  std::mutex mutex_;
  /// What holds the lock, when there is one.
  std::unique_ptr<Connection> connection_;
  /// Whether this process has locked here, as far as it knows.
  bool isLocked_ = false;
};

/// One entry for each pipe that was ever asked; never destroyed.
class LockConnections {
 public:
  static LockConnections& Instance() {
    static LockConnections& connections = *new LockConnections;
    return connections;
  }

  LockConnection& At(const ZelString& pipe) {
    const std::lock_guard lock(mutex_);
    std::unique_ptr<LockConnection>& connection = connections_[pipe];
    if (!connection) connection = std::make_unique<LockConnection>(pipe);
    return *connection;
  }

  std::vector<LockConnection*> All() {
    const std::lock_guard lock(mutex_);
    std::vector<LockConnection*> all;
    for (const auto& [pipe, connection] : connections_) all.push_back(connection.get());
    return all;
  }

 private:
  std::mutex mutex_;
  std::map<ZelString, std::unique_ptr<LockConnection>> connections_;
};

}  // namespace

bool ProxyDesktopLockManager::Lock(const ZelString& pipeName) {
  return Guarded("locking the desktop", false,
                 [&] { return LockConnections::Instance().At(pipeName).Lock(); });
}

// The session whose desktop was locked may not be the active one any more: nothing stays locked.
bool ProxyDesktopLockManager::Unlock(const ZelString& pipeName) {
  return Guarded("unlocking the desktop", false, [&] {
    const bool isUnlocked = LockConnections::Instance().At(pipeName).Unlock();
    for (LockConnection* const other : LockConnections::Instance().All()) other->Release();
    return isUnlocked;
  });
}

bool ProxyDesktopLockManager::SetMessage(const ZelString& pipeName, const ZelString& title,
                                         const ZelString& text) {
  return Guarded("the locked desktop's message", false,
                 [&] { return LockConnections::Instance().At(pipeName).SetText(title, text); });
}
