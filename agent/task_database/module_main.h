#pragma once

#include <cstdint>

#include "libZel.h"

/// The module's only export: the agent drives the module through it, one command at a time.
///
/// | command | meaning     | `buffer`                                                     |
/// |---------|-------------|--------------------------------------------------------------|
/// | 1       | register    | the registration context of the module's actions             |
/// | 2       | unregister  | unused; nothing is logged from then on                       |
/// | 3       | initialise  | unused; takes the database's name from the settings          |
/// | 4       | activate    | unused; looks whether the database can be used, for the log  |
/// | 5       | clean up    | unused; closes the database when the last action has ended   |
/// | 6       | description | receives the text with its terminator                        |
/// | 7       | version     | receives the text with its terminator                        |
/// | 8, 9    | nothing     | unused                                                       |
///
/// The caller provides room for the texts. `argument` is not looked at.
///
/// Returns 1 for these commands, whatever became of them, and 5, with nothing done, for any other.
/// Throws nothing. Commands are not meant to run side by side.
extern "C" uint32_t ModuleMain(uint32_t command, uint32_t argument, TCHAR* buffer);

/// The logger of every line that the module writes; bound to the agent's log by command 1.
ZelDebug& TaskDatabaseLog();
