#pragma once

#include <string>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"
#include "libZel/container.h"

// zelctl's verbs over files and directories as a whole. Each throws `Failure`, which carries the
// deciding reply, unless it succeeded.

/// Of a file.
Result Copy(AgentClient& agent, const std::string& source, const std::string& destination);
/// A file, or else a directory.
Result Move(AgentClient& agent, const std::string& source, const std::string& destination);
/// A file, or with `recursive` a directory with everything in it.
Result Remove(AgentClient& agent, const std::string& path, bool recursive);
/// What a file is; of a directory how many entries it has.
Result ShowFile(AgentClient& agent, const std::string& path);
/// A line as md5sum writes it.
Result ShowDigest(AgentClient& agent, const std::string& path);
Result MakeDirectory(AgentClient& agent, const std::string& path);
/// A directory with everything in it.
Result RemoveTree(AgentClient& agent, const std::string& path);
Result ListVolumes(AgentClient& agent);

/// The results of CoreUtilsGetFileInformation for people, without the texts that are empty.
std::string FormatFileInformation(const std::string& path, const ZelContainer& information);
/// The results of CoreUtilsGetFileSystems as a table; empty without drives.
std::string FormatVolumes(const ZelContainer& volumes);
