#pragma once

#include <cstdint>
#include <string_view>

#include "libZel.h"

/// The module's only export: the agent drives the module through it, one command at a time.
///
/// | command | meaning     | `buffer`                                       |
/// |---------|-------------|------------------------------------------------|
/// | 1       | register    | the registration context, passed on as it is   |
/// | 2       | unregister  | unused                                         |
/// | 3       | initialise  | unused                                         |
/// | 4       | activate    | unused                                         |
/// | 5       | clean up    | unused                                         |
/// | 6       | description | receives the text with its terminator          |
/// | 7       | version     | receives the text with its terminator          |
/// | 8, 9    | nothing     | unused                                         |
///
/// The caller provides room for the texts: there is no length to check against. Commands 2 and 5
/// ignore `argument`, the others do not look at it.
///
/// Returns 1 for these commands, whatever became of the host calls they make, and 5, with nothing
/// done, for any other. Throws nothing. Commands are not meant to run side by side.
extern "C" uint32_t ModuleMain(uint32_t command, uint32_t argument, TCHAR* buffer);

/// The logger of every line that the module writes; bound to the agent's log by command 1.
ZelDebug& Logger();

/// The agent's data directory followed by "ZelCoreUtils"; empty before command 3.
const ZelString& ModuleDataDirectory();

/// The agent's configuration directory followed by "ZelCoreUtils.ini"; empty before command 3.
const ZelString& ModuleIniPath();

/// Logs the exception being handled as the failure of `what`. Call it in a catch block.
void LogCurrentException(std::string_view what) noexcept;
