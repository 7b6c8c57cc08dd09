#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "agent/zelctl/agent_client.h"

/// What a command writes.
struct Result {
  std::string text;     ///< for people
  std::string json;     ///< the reply of the agent that decided, as it came
  std::string problem;  ///< what went wrong when the action returned something else than 0
  /// What is wrong in a text of the user's, as FILE:LINE: MESSAGE; for whom editors look for that,
  /// it is written without zelctl's name.
  std::string diagnostic = {};
  /// What there is to say of a success, where nothing was printed; on standard error.
  std::string remark = {};
};

// The commands of zelctl that are no verbs over files or programs. Each throws `Failure`, which
// carries the deciding reply, unless it succeeded.

/// `key=text` and `key:=json` as one JSON object. Throws `Failure` (kUsage) that names the
/// argument.
std::string ParametersToJson(const std::vector<std::string>& arguments);

Result ShowHealth(AgentClient& agent);
Result ListActions(AgentClient& agent, const std::string& pattern);
/// Also returns when the action did, whatever its code; `problem` then tells. An unknown action is
/// answered with the nearest name there is.
Result CallAction(AgentClient& agent, const std::string& name,
                  const std::vector<std::string>& arguments);

/// Checks the hash chain of an audit log on this machine; the agent is not asked. kUsage when it
/// cannot be read.
Result VerifyAudit(const std::filesystem::path& file);
