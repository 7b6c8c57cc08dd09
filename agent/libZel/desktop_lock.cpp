#include "libZel/desktop_lock.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "agent/libZel/boundary.h"
#include "agent/libZel/proxy_connection.h"

using proxy_protocol::Field;

namespace {

// The proxy answers when the screen is covered, which may take some seconds.
constexpr uint32_t kTimeoutMs = 10000;

/// The connection over which this process has locked a desktop: the proxy unlocks some time after
/// it has ended.
class LockConnection {
 public:
  explicit LockConnection(const ZelString& pipe) : pipe_(pipe) {}

  bool Lock() {
    const std::lock_guard lock(mutex_);
    const bool isLocked = Ask("lock", {});
    if (!isLocked) connection_.reset();
    return isLocked;
  }

  bool Unlock() {
    const std::lock_guard lock(mutex_);
    const bool isUnlocked = Ask("unlock", {});
    connection_.reset();
    return isUnlocked;
  }

  /// Unlocks where this process has locked.
  void Release() {
    const std::lock_guard lock(mutex_);
    if (connection_) Ask("unlock", {});
    connection_.reset();
  }

  bool SetText(const ZelString& title, const ZelString& text) {
    const std::lock_guard lock(mutex_);
    const bool wasHeld = connection_ != nullptr;
    const bool isSet = Ask(
        "lock-text", {{"title", std::string(title.Utf8())}, {"text", std::string(text.Utf8())}});
    // One of its own would only keep a place at the proxy.
    if (!wasHeld) connection_.reset();
    return isSet;
  }

 private:
  // Over the connection that is there or, when that has broken or there is none, a new one.
  bool Ask(const std::string& request, const std::vector<Field>& fields) {
    if (connection_) {
      const auto answer = connection_->Ask(request, fields);
      if (answer.reply) return Judge(request, answer);
    }
    connection_ = OpenProxyConnection(pipe_, kTimeoutMs);
    return connection_ && Judge(request, connection_->Ask(request, fields));
  }

  bool Judge(const std::string& request, const XmlProxyClient::Connection::Answer& answer) const {
    const std::string why = WhyFailed(answer);
    if (why.empty()) return true;
    LibraryLog().WarningWithNL("\"%s\" failed for the desktop at \"%S\": %S", request, pipe_, why);
    return false;
  }

  const ZelString pipe_;
  std::mutex mutex_;
  std::unique_ptr<XmlProxyClient::Connection> connection_;
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
