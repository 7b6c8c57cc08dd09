#include "agent/libZelMarlin/script_libraries.h"

#include <lauxlib.h>
#include <lualib.h>

#include <algorithm>
#include <string_view>

#include "agent/libZel/debug_context.h"
#include "agent/libZelMarlin/finalizers.h"
#include "agent/libZelMarlin/interpreter.h"
#include "agent/libZelMarlin/library_changes.h"
#include "agent/libZelMarlin/script_state.h"

namespace {

constexpr size_t kMostPrintedBytes = 65536;

constexpr std::array<char, kOriginalCount> kOriginals{};

// What is printed.

int Print(lua_State* L) {
  std::string line;
  const int count = lua_gettop(L);
  for (int i = 1; i <= count; ++i) {
    luaL_tolstring(L, i, nullptr);
    if (i > 1) line += '\t';
    line += BytesAt(L, -1).substr(0, kMostPrintedBytes - std::min(line.size(), kMostPrintedBytes));
    lua_pop(L, 1);
  }
  LibraryLog().PrintWithNL("%s: %S", ScriptName(L), ZelString(line));
  return 0;
}

// The end of the script. Whatever catches errors passes its end on.

int Exit(lua_State* L) {
  int code = 0;
  if (lua_isboolean(L, 1)) {
    code = lua_toboolean(L, 1) != 0 ? 0 : 1;
  } else {
    code = static_cast<int>(luaL_optinteger(L, 1, 0));
  }
  using End = Interpreter::End;
  const End end = code == 0 ? End::kExit : End::kExitWithFailure;
  Interpreter::Of(L).EndScript(L, end, "the script has ended itself with " + std::to_string(code));
}

int FinishCatching(lua_State* L, int status, lua_KContext hiddenValues) {
  PassEndOn(L);
  if (status != LUA_OK && status != LUA_YIELD) {
    lua_pushboolean(L, 0);
    lua_pushvalue(L, -2);
    return 2;
  }
  return lua_gettop(L) - static_cast<int>(hiddenValues);
}

int ProtectedCall(lua_State* L) {
  luaL_checkany(L, 1);
  lua_pushboolean(L, 1);
  lua_insert(L, 1);
  const int status = lua_pcallk(L, lua_gettop(L) - 2, LUA_MULTRET, 0, 0, FinishCatching);
  return FinishCatching(L, status, 0);
}

/// A handler of `xpcall`. Those of scripts are not called at the script's end: Lua would not count
/// their instructions then.
int HandleError(lua_State* L) {
  lua_settop(L, 1);
  if (Interpreter::Of(L).IsEnding()) return 1;
  lua_pushvalue(L, lua_upvalueindex(1));
  lua_insert(L, 1);
  lua_call(L, 1, 1);
  return 1;
}

int ProtectedCallWithHandler(lua_State* L) {
  luaL_checktype(L, 2, LUA_TFUNCTION);
  const int argumentCount = lua_gettop(L) - 2;
  lua_pushvalue(L, 2);
  lua_pushcclosure(L, HandleError, 1);
  lua_replace(L, 2);
  lua_pushboolean(L, 1);
  lua_pushvalue(L, 1);
  lua_rotate(L, 3, 2);
  const int status = lua_pcallk(L, argumentCount, LUA_MULTRET, 2, 2, FinishCatching);
  return FinishCatching(L, status, 2);
}

/// The locale belongs to the whole process.
int SetLocale(lua_State* L) {
  if (lua_isnoneornil(L, 1)) return CallOriginal<kQueryLocale>(L);
  luaL_checkstring(L, 1);
  luaL_pushfail(L);
  return 1;
}

}  // namespace

void KeepOriginal(lua_State* L, const char* name, Original original) {
  lua_getfield(L, -1, name);
  lua_rawsetp(L, LUA_REGISTRYINDEX, &kOriginals[original]);
}

int CallKept(lua_State* L, Original original) {
  lua_rawgetp(L, LUA_REGISTRYINDEX, &kOriginals[original]);
  lua_insert(L, 1);
  lua_call(L, lua_gettop(L) - 1, LUA_MULTRET);
  PassEndOn(L);
  return lua_gettop(L);
}

void Replace(lua_State* L, std::initializer_list<luaL_Reg> functions) {
  for (const luaL_Reg& function : functions) {
    lua_pushcfunction(L, function.func);
    lua_setfield(L, -2, function.name);
  }
}

void PassEndOn(lua_State* L) {
  Interpreter& interpreter = Interpreter::Of(L);
  if (interpreter.IsEnding()) interpreter.GoOnEnding(L);
}

std::string_view BytesAt(lua_State* L, int index) {
  size_t length = 0;
  const char* const text = lua_tolstring(L, index, &length);
  return {text, length};
}

/// Files and the agent's own objects keep their metatables to themselves: a finalizer put there
/// would escape the limits.
int GetMetatable(lua_State* L) {
  luaL_checkany(L, 1);
  if (lua_type(L, 1) == LUA_TUSERDATA) {
    lua_pushboolean(L, 0);
    return 1;
  }
  if (lua_getmetatable(L, 1) == 0) {
    lua_pushnil(L);
    return 1;
  }
  luaL_getmetafield(L, 1, "__metatable");
  return 1;
}

void OpenScriptLibraries(lua_State* L) {
  // The environment's LUA_PATH and the like are not for scripts of the agent.
  lua_pushboolean(L, 1);
  lua_setfield(L, LUA_REGISTRYINDEX, "LUA_NOENV");
  luaL_openlibs(L);
  PrepareFinalizers(L);

  lua_pushglobaltable(L);
  Replace(L, {{"print", ForScript<Print>},
              {"pcall", ForScript<ProtectedCall>},
              {"xpcall", ForScript<ProtectedCallWithHandler>},
              {"getmetatable", ForScript<GetMetatable>},
              {"setmetatable", ForScript<SetMetatable>}});
  lua_getfield(L, -1, LUA_OSLIBNAME);
  KeepOriginal(L, "setlocale", kQueryLocale);
  Replace(L, {{"exit", ForScript<Exit>}, {"setlocale", ForScript<SetLocale>}});
  lua_pop(L, 2);
  ChangeCoroutineLibrary(L);
  ChangeLoading(L);
  ChangeDebugLibrary(L);
  SetScriptDirectory(L, "");
}
