#pragma once

#include <lua.h>

// Finalizers (__gc) of a script's tables. Lua runs them without counting their instructions; these
// run in a coroutine of their own instead, where they are counted.

/// Makes what `SetMetatable` needs. Called protected.
void PrepareFinalizers(lua_State* L);

/// The function `setmetatable` of scripts.
int SetMetatable(lua_State* L);
