#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "agent/libZelCore/action_database.h"
#include "agent/libZelCore/action_pool.h"
#include "agent/libZelCore/alias_table.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/settings.h"

/// One finished request that changes something, for the audit trail.
struct InvocationRecord {
  Caller caller;
  std::string what;  ///< "action NAME", or "upload ALIAS/FILE bytes N"
  std::string requestId;
  uint32_t code = 0;  ///< the action's; of an upload 0, or the status of its refusal
};

/// The agent's HTTP protocol: docs/protocol.md. Runs on a small pool of network threads of its own;
/// actions run on the action pool.
class HttpServer {
 public:
  using Audit = std::function<void(const InvocationRecord&)>;

  /// The references must outlive the server. `audit` is called on threads of actions and uploads.
  HttpServer(const Settings& settings, Authenticator& authenticator, const ActionDatabase& actions,
             AliasTable& aliases, ActionPool& pool, Audit audit);
  ~HttpServer();

  /// Binds and serves. Throws std::runtime_error that names the address, or the certificate file,
  /// and what was wrong; refuses an address beyond loopback without TLS unless the settings allow
  /// it.
  void Start();
  /// Stops taking connections, lets replies in flight finish for a short while, closes the rest.
  void Stop();

  /// The bound port, after Start.
  uint16_t Port() const;
  /// "http://127.0.0.1:7460" or "https://...".
  std::string Url() const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
