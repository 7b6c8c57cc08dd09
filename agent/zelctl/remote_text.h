#pragma once

#include <optional>
#include <string>

#include "agent/zelctl/agent_client.h"

// Texts of files on the agent's machine, as UTF-8 without a byte-order mark.

struct RemoteText {
  std::string text;
  std::string body;  ///< of the reply that held it
};

/// Throws `Failure`, with what is known of the reason: a missing file, a directory, UTF-16 or
/// UTF-32, a refusal.
RemoteText ReadRemoteText(AgentClient& agent, const std::string& path);
/// The same for a file that need not exist: empty when there is nothing of that name.
std::optional<RemoteText> ReadRemoteTextIfAny(AgentClient& agent, const std::string& path);
/// Replaces the file's text, or creates the file. Throws `Failure`.
ActionReply WriteRemoteText(AgentClient& agent, const std::string& path, const std::string& text);

/// `bytes` without the byte-order mark that the agent adds itself. Throws `Failure` (kUsage), which
/// names `source`, when they are not UTF-8 or too many.
std::string RequireUtf8(std::string bytes, const std::string& source);
