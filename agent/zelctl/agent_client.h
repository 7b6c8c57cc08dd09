#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "libZel/container.h"

/// Where the agent is and as whom to speak to it.
struct AgentAddress {
  std::string url;   ///< http://host:port or https://host:port
  std::string user;  ///< empty: no credentials are sent
  std::string password;
  std::string caFile;  ///< PEM certificates to trust instead of the system's; may be empty
};

struct ActionReply {
  std::string body;  ///< as it came
  uint32_t code = 0;
  ZelContainer container;
};

struct ActionDescription {
  std::string name;
  std::string signature;
};

/// An agent's HTTP protocol, docs/protocol.md, from the caller's side. Connects directly, never
/// through a proxy; follows no redirects. Requests share one connection.
///
/// Each request throws `Failure`: kAgentRefused when there is no connection, TLS fails, the
/// credentials are refused, the agent is at capacity or the answer is not the protocol's; kUsage
/// when the agent found the request wrong; kActionFailed when an `Interruption` was asked for.
class AgentClient {
 public:
  /// Throws `Failure` (kUsage) for an address that is none, or that holds credentials.
  explicit AgentClient(AgentAddress address);
  ~AgentClient();
  AgentClient(const AgentClient&) = delete;
  AgentClient& operator=(const AgentClient&) = delete;

  const AgentAddress& Address() const { return address_; }

  /// Whether the credentials would travel unprotected to another machine.
  bool SendsPasswordInClear() const;

  /// The body of the reply.
  std::string Health();
  std::string ActionList();
  /// `parameters` is the container as JSON.
  ActionReply Call(const std::string& action, const std::string& parameters);

 private:
  struct Connection;

  std::string Request(const std::string& path, const std::string* body);

  AgentAddress address_;
  std::unique_ptr<Connection> connection_;
};

/// Takes an `ActionList` apart. Throws `Failure` (kAgentRefused) when it is none.
std::vector<ActionDescription> ParseActionList(const std::string& body);
