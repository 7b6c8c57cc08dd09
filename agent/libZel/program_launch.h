#pragma once

#include <string>
#include <vector>

#include "agent/libZel/outcome.h"
#include "libZel/string.h"

/// Starts a program: what differs between systems. `arguments` is `commandLine` taken apart, the
/// program, which is not empty, first. Neither holds a NUL. Throws std::exception.
Outcome LaunchProgram(const ZelString& commandLine, const std::vector<std::string>& arguments);
