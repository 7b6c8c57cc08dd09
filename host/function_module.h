#pragma once

#include "libZelCore.h"
#include "libZelMarlin.h"

// What the agent's function module for scripts, zelagent.mlx, exports under the names
// "AddContainerVariable" and "SetActionInvokeAddress". Nothing here throws.

/// Tells the functions for scripts which container is the script's own: the one behind the handle
/// variable that was added to the context. It is taken over and lives as long as the context, and
/// the script works on it. Where there is no memory for it the context runs nothing: `RunProcedure`
/// fails with `kMarlinMemory`.
using AddContainerVariableFunction = void (*)(MarlinContext* context, ZelContainer* container);

/// Gives scripts the means to invoke actions, here and on other agents.
using SetActionInvokeAddressFunction = void (*)(decltype(&ActionDbInvokeContainer) invoke);
