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
/// key is taken out and not believed. What is not of the form above, with a login of at most 256
/// visible ASCII characters, counts as nothing said: no login, no administrator. Without an agent
/// in this process all is empty.
CallingUser TakeCallingUser(ZelContainer* parameters);

/// The other half: says in a request to another agent for whom this one asks. What runs here for
/// another agent is vouched for by nobody: that agent may say what it likes about its callers, but
/// not in this one's name. A key that was there is gone then, and replaced otherwise.
void SetCallingUser(ZelContainer* request);
