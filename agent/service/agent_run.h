#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "agent/libZelCore/agent_core.h"

/// Runs an agent with all modules of the directory `modules` until `StopRequest` is raised.
/// `onReady` is told its URL when it answers. Throws std::runtime_error with a sentence for the
/// administrator, UnsafeInstallation before anything of the modules or the home is used.
void RunAgent(const AgentOptions& options, const std::filesystem::path& modules,
              const std::function<void(const std::string&)>& onReady);
