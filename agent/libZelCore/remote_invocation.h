#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "agent/libZelCore/settings.h"
#include "libZelCore.h"

/// Empty when `address` is a URL of an agent: http or https, a host, perhaps a port; no
/// credentials, path, query or fragment. Else what is wrong with it.
std::string CheckAgentAddress(const std::string& address);

/// How a remote invocation ended.
struct RemoteResult {
  /// The action's own code, or a `kInvoke...` code.
  uint32_t code = 0;
  /// Empty when the action ran; else a sentence for the log.
  std::string error;
};

/// Runs actions on other agents over the HTTP protocol of docs/protocol.md, as agent "agent/NAME"
/// with the password that follows from the fleet secret. Servers are verified against the fleet's
/// certificate authority alone. Without TLS it talks to loopback only, unless the settings allow
/// more, for whoever reads the password on the way is this agent from then on.
///
/// Threads: any number may invoke at once.
class RemoteInvoker {
 public:
  explicit RemoteInvoker(const Settings& settings);

  /// `timeoutMs` is for the whole invocation, ~0U for the configured time. `parameters` becomes the
  /// results when the action ran, whatever its code, and stays as it is otherwise. Never throws
  /// (but for lack of memory).
  RemoteResult Invoke(const std::string& address, const std::string& action,
                      ZelContainer* parameters, uint32_t timeoutMs) const;

 private:
  const std::string agentName_;
  const std::string secret_;
  const std::string caFile_;
  const uint32_t timeoutMs_;
  const uint32_t connectTimeoutMs_;
  const bool allowPlain_;
};
