#pragma once

#include <string>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"

// zelctl's verbs over the text in a file. Each throws `Failure`, which carries the deciding reply,
// unless it succeeded.

/// The text of a remote file, as it is.
Result PrintText(AgentClient& agent, const std::string& path);
/// Sends a local file, or standard input for "-", which must hold UTF-8 text.
Result PutText(AgentClient& agent, const std::string& local, const std::string& remote);
/// Lets the user change the text of a remote file, which need not exist, in an editor.
Result EditText(AgentClient& agent, const std::string& path);
