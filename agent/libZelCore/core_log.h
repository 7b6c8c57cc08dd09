#pragma once

#include "libZel/debug.h"

/// The logger "libZelCore" of the core itself; `AgentCore` binds it to its context.
ZelDebug& CoreLog();
