#pragma once

#include "libZel.h"
#include "libZelCore.h"
#include "module/action.h"

// How handlers invoke actions. Each waits for the action; `container` holds its parameters and then
// its results. The answer is the action's own result code, or one of the core's for an action that
// did not run.

/// An action of this agent.
inline ResultCode InvokeHere(const ZelString& action, ZelContainer* container) {
  return ActionDbInvokeContainer(nullptr, "", action, container, nullptr, ~0U, ~0U, false);
}

/// An action of the agent at `url`; `agent` is its identity, or null where the URL alone names it.
inline ResultCode InvokeAt(const ZelString* agent, const ZelString& url, const ZelString& action,
                           ZelContainer* container) {
  return ActionDbInvokeContainer(agent, url, action, container, nullptr, ~0U, ~0U, false);
}

/// An action of the master server.
inline ResultCode InvokeOnMaster(const ZelString& action, ZelContainer* container) {
  return InvokeContainerToMasterWithTempTunnel(action, *container, nullptr, nullptr, ~0U, ~0U);
}
