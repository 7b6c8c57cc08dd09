#pragma once

#include <lua.h>

#include <string>

/// Opens Lua's libraries, as far as scripts of the agent have them: output goes to the log, nothing
/// ends the process, only texts are compiled, no libraries of machine code are loaded, and nothing
/// escapes the limits. Called protected; raises Lua's errors.
void OpenScriptLibraries(lua_State* L);

/// Has `require` look in `directory`, which ends in a separator.
void SetScriptDirectory(lua_State* L, const std::string& directory);
