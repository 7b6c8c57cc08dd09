#pragma once

#include <cstdint>

#include "agent/libZelCore/agent_core.h"

/// Runs an action on the master, for whoever called this agent: the request says who that is
/// (calling_user.h). The master is the one that [master] address names, over a connection of this
/// call alone; a master without that address asks itself, and runs the action here and now as if
/// this agent had asked over the network.
///
/// `timeoutMs` is for the whole invocation, ~0U for [master] timeout_ms; what a master asks of
/// itself is not bounded by it. `parameters` becomes the answer when the action ran, whatever its
/// code, and stays as it is otherwise. Returns the action's code or a `kInvoke...` code; the log
/// says why nothing ran, and what the master says was wrong with the request.
uint32_t InvokeMaster(AgentCore::Implementation& core, const ZelString& action,
                      ZelContainer* parameters, uint32_t timeoutMs);
