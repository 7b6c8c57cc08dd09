#pragma once

#include <lua.h>

#include "libZel/string.h"

// Texts between scripts and the agent. Scripts have bytes; a byte that belongs to no character of
// UTF-8 is a lone surrogate in the agent's texts (see `ZelString`) and becomes that byte again.

/// Pushes the text.
void PushText(lua_State* L, std::string_view text);

/// The text at `index`, which is one.
ZelString TextAt(lua_State* L, int index);

/// The argument `index`; an error of the script unless it is a text. Unlike Lua's own functions it
/// takes no numbers: as a key, 1 and "1" would be the same.
ZelString CheckText(lua_State* L, int index);
