#pragma once

#include <lua.h>

#include <array>
#include <cstddef>
#include <initializer_list>
#include <string_view>

#include <lauxlib.h>

// What the files share that change Lua's libraries for scripts. All of it raises Lua's errors.

/// Functions of Lua's libraries that ours call. They are in the registry, out of the reach of
/// scripts, under the addresses of these.
enum Original : size_t {
  kLoad,
  kCloseCoroutine,
  kQueryLocale,
  kGetInfo,
  kGetLocal,
  kGetUpvalue,
  kUpvalueId,
  kOriginalCount
};

/// Keeps the function `name` of the table on top for `CallOriginal`.
void KeepOriginal(lua_State* L, const char* name, Original original);

/// Calls the original with all arguments, and passes the script's end on if it was caught there.
int CallKept(lua_State* L, Original original);

template <Original kWhich>
int CallOriginal(lua_State* L) {
  return CallKept(L, kWhich);
}

/// Replaces functions of the table on top.
void Replace(lua_State* L, std::initializer_list<luaL_Reg> functions);

/// Raises the script's end again where it was caught.
void PassEndOn(lua_State* L);

std::string_view BytesAt(lua_State* L, int index);

/// The function `getmetatable` of scripts.
int GetMetatable(lua_State* L);

// The libraries, each in a file of its own.

/// Coroutines are counted, and none of them swallows the script's end.
void ChangeCoroutineLibrary(lua_State* L);
/// Only texts are compiled, and modules are such files: `load` and its like, and `package`.
void ChangeLoading(lua_State* L);
/// Of the debug library stays what looks and changes nothing.
void ChangeDebugLibrary(lua_State* L);
