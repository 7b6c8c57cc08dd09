#pragma once

#include "module/action.h"

/// Starts the program "Path" with "Parameters", in the agent's own context or, with
/// "ProgramContext", in the logged-on user's. Answers no keys: whether it was started is all that
/// is told.
ResultCode CoreUtilsRunProgram(ZelContainer* params);
