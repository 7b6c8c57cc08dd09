#pragma once

#include <cstdint>
#include <string>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"

// zelctl's verbs over the agent's relay, and over archives on its machine. Each throws `Failure`,
// which carries the deciding reply, unless it succeeded.

/// Where an agent is for other agents.
struct Endpoint {
  std::string host;
  uint32_t port = 0;
};

/// "host:port"; an IPv6 address may stand in brackets. Throws `Failure` (kUsage).
Endpoint ParseEndpoint(const std::string& text);
/// The agent's relay. Throws `Failure` (kUsage) when none is configured.
Endpoint RequireRelay(AgentClient& agent);
/// Where the agent itself is.
Endpoint AskForOwnEndpoint(AgentClient& agent);

/// The relay and the agent's own address. Without a relay, `problem` says so.
Result ShowRelay(AgentClient& agent);

/// The temporary directories that other agents may upload into.
Result ListAliases(AgentClient& agent);

struct RelayPutOptions {
  std::string source;       ///< a path on the agent's machine
  std::string destination;  ///< a path on the relay's
  bool unpack = false;
  bool showsProgress = false;
};

/// Copies a file to the relay. The action says nothing of the transfer itself; the agent's own
/// account of it decides.
Result PutOnRelay(AgentClient& agent, const RelayPutOptions& options);

struct ExtractOptions {
  std::string archive;
  std::string directory;
  bool showsProgress = false;
};

/// Unpacks an archive on the agent's machine and deletes it.
Result ExtractArchive(AgentClient& agent, const ExtractOptions& options);
