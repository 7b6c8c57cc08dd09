#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"

// zelctl's verbs over programs and processes. Each throws `Failure`, which carries the deciding
// reply, unless it succeeded.

struct RunOptions {
  std::string program;
  std::vector<std::string> arguments;
  /// Run it in the session of the user who is logged on, not in the agent's.
  bool inUserSession = false;
};

struct ProcessListOptions {
  /// Part of a name, path or owner, a pattern with * and ?, or an ID; empty: all.
  std::string filter;
  /// cpu, memory, name, id, owner or time.
  std::string order = "id";
  bool isReversed = false;
  /// Rows to show; 0 means all.
  int32_t limit = 0;
  bool asTree = false;
  bool withPaths = false;
};

/// Starts a program and does not wait for its end. kUsage when its name holds a double quote.
Result RunProgram(AgentClient& agent, const RunOptions& options);

/// With `limit`, the first rows in the order asked for, of a tree as of a list.
Result ListProcesses(AgentClient& agent, const ProcessListOptions& options);

/// Ends processes. kUsage, which names the ID, before anything is sent when one is no whole number
/// above 0 and below 2^32.
Result EndProcesses(AgentClient& agent, const std::vector<std::string>& ids);
