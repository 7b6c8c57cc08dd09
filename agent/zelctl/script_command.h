#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"

struct ScriptOptions {
  /// A script on the agent's machine: below the module's data directory, or a path from the root.
  std::string name;
  /// A script on this machine, instead of `name`. It is copied to the agent, and deleted there when
  /// the run has ended, however it ended; not when zelctl is killed or the agent becomes
  /// unreachable meanwhile.
  std::string localFile;
  /// The script's parameters, as `ParametersToJson` takes them.
  std::vector<std::string> parameters;
  bool compileOnly = false;
};

/// Runs a script on the agent's machine. An error in the script is returned as the result's
/// `diagnostic`. Throws `Failure` when the script could not be run at all: kUsage for a name and a
/// local file or neither, for wrong parameters and for a local file that cannot be read.
Result RunScript(AgentClient& agent, const ScriptOptions& options);

/// "FILE:LINE: MESSAGE" of what the agent tells of an error in a script: `errorText` is
/// "Fatal parse or run time error NAME line LINE\r\nTEXT: DETAIL", where DETAIL may start with the
/// script's file and line again, which then are left out. `script` is the name that the agent
/// knows, `shown` what to call it; without a line (0) or a detail they are left out.
std::string FormatScriptError(const std::string& errorText, int32_t line, const std::string& script,
                              const std::string& shown);
