#pragma once

#include <filesystem>
#include <string>

#include "libZel/debug.h"

/// The logger "libZelCore" of the core itself; `AgentCore` binds it to its context.
ZelDebug& CoreLog();

/// The file's name as messages show it, UTF-8.
std::string FileText(const std::filesystem::path& file);
