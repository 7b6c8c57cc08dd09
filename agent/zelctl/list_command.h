#pragma once

#include <cstdint>
#include <string>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"

struct ListOptions {
  std::string path;
  /// name, size, mode or modified.
  std::string order = "name";
  bool isReversed = false;
  /// Entries to show; 0 means all.
  int32_t limit = 0;
  /// Entries to leave out before the first one shown.
  int32_t offset = 0;
  bool withHidden = false;
  bool onlyNames = false;
  /// Ask once, for the rows that `offset` and `limit` name with the hidden ones counted, and print
  /// the reply alone.
  bool onlyReply = false;
};

/// Lists a directory. The agent is asked for a page at a time, so that a limit spares the rows of a
/// huge directory; what comes and goes between two pages may be shown twice or not at all. Throws
/// `Failure`.
Result ListDirectory(AgentClient& agent, const ListOptions& options);
