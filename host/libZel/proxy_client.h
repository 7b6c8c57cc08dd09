#pragma once

#include <cstdint>
#include <memory>

#include "libZel/string.h"

/// A connection to the user-session proxy, the agent's helper in the session of the logged-on user.
/// The agent's own code asks things of the proxy through it.
///
/// Threads: one at a time. Nothing here throws.
class XmlProxyClient {
 public:
  /// The session of the logged-on user; the only type of session there is.
  static constexpr int kUserSession = 1;

  XmlProxyClient();
  ~XmlProxyClient();
  XmlProxyClient(const XmlProxyClient&) = delete;
  XmlProxyClient& operator=(const XmlProxyClient&) = delete;

  /// Connects to the proxy that listens at `pipeName`, within `timeoutMs`. False when there is no
  /// such proxy or it does not answer; the reason goes to the library's log.
  bool Initialise(const ZelString& pipeName, uint32_t timeoutMs, int sessionType);

  struct Connection;
  /// Null until `Initialise` has succeeded. For the agent's own code.
  Connection* GetConnection() const { return connection_.get(); }

 private:
  std::unique_ptr<Connection> connection_;
};
