#pragma once

#include <string>

#include "libZel.h"

// Actions of the master decide by who asks. An agent asks on behalf of its own callers, so it says
// for whom: the fleet's agents trust each other to tell the truth.

/// Whom the action that runs on this thread was invoked for.
struct CallingUser {
  std::string agent;  ///< the name of the agent that asks; this one's for what was called here
  std::string login;  ///< the console user of that agent; empty for what it does by itself
  /// Whether that console user has the role "administrator" there. What this agent does by itself,
  /// without another one asking, counts as the administrator's.
  bool isAdministrator = false;
};

/// The key under which an agent says for whom it asks: a container with "Login" (text) and
/// "Administrator" (flag).
constexpr const char* kCallingUserKey = "AgentCallingUser";

/// Takes what another agent said about it out of the action's parameters. From anybody else that
/// key is taken out and not believed.
CallingUser TakeCallingUser(ZelContainer* parameters);
