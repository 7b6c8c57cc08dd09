#pragma once

#include "agent/libZel/outcome.h"
#include "libZel/string.h"

/// Starts a program and does not wait for its end; `commandLine` is what `ExecRedirect` takes. The
/// outcome is a success when the program runs, else it tells why it does not: missing, no program,
/// no right to run it. Throws nothing; any number of threads may call at once.
///
/// The program inherits no handles; its standard streams are empty. It has this process's
/// environment and working directory and belongs to a session (on Windows: process group) of its
/// own. Off Windows a path of the protocol names it (drive letters, either separator), a name
/// without a directory is looked for along PATH, and the program gets the default treatment of all
/// signals, whatever this process ignores or blocks.
Outcome StartProgram(const ZelString& commandLine);
