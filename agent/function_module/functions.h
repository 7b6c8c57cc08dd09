#pragma once

#include <lua.h>

#include "libZelCore.h"

// The tables of functions that scripts get; each is left on top of the stack. Called protected.

/// `container`
void PushContainerFunctions(lua_State* L);
/// `action`
void PushActionFunctions(lua_State* L);
/// `log`
void PushLogFunctions(lua_State* L);
/// `session`
void PushSessionFunctions(lua_State* L);

/// What `action.invoke` calls from now on, in every script.
void SetActionInvoker(decltype(&ActionDbInvokeContainer) invoke);
