#include <lualib.h>

#include <array>
#include <limits>

#include "agent/libZelMarlin/library_changes.h"
#include "agent/libZelMarlin/script_state.h"

// Looking into functions. What the engine's own functions work with stays hidden: functions that
// are not made for scripts, and values that would get around the limits.

namespace {

/// Adds to the level among the arguments, if there is one, the call of the original.
void PassLevelOn(lua_State* L) {
  const int place = lua_isthread(L, 1) ? 2 : 1;
  if (place == 2 && lua_tothread(L, 1) != L) return;
  int isLevel = 0;
  const lua_Integer level = lua_tointegerx(L, place, &isLevel);
  if (isLevel == 0 || level < 0 || level >= std::numeric_limits<int>::max()) return;
  lua_pushinteger(L, level + 1);
  lua_replace(L, place);
}

int GetInfo(lua_State* L) {
  PassLevelOn(L);
  CallOriginal<kGetInfo>(L);
  if (!lua_istable(L, -1)) return 1;
  if (lua_getfield(L, -1, "func") == LUA_TFUNCTION && lua_iscfunction(L, -1) != 0) {
    lua_pushnil(L);
    lua_setfield(L, -3, "func");
  }
  lua_pop(L, 1);
  return 1;
}

/// Only variables that have names: the other places of a stack may still hold what a function of
/// the engine has left there.
int GetLocal(lua_State* L) {
  PassLevelOn(L);
  const int count = CallOriginal<kGetLocal>(L);
  const bool isNamed = lua_type(L, 1) == LUA_TSTRING && !BytesAt(L, 1).ends_with("temporary)");
  if (isNamed) return count;
  luaL_pushfail(L);
  return 1;
}

template <Original kWhich>
int LookAtUpvalue(lua_State* L) {
  luaL_checktype(L, 1, LUA_TFUNCTION);
  if (lua_iscfunction(L, 1) == 0) return CallOriginal<kWhich>(L);
  luaL_pushfail(L);
  return 1;
}

}  // namespace

void ChangeDebugLibrary(lua_State* L) {
  // The other functions could take off limits, change what the agent's own functions rely on, or
  // wait for a person.
  constexpr std::array<luaL_Reg, 6> kFunctions{{
      {"getinfo", ForScript<GetInfo>},
      {"getlocal", ForScript<GetLocal>},
      {"getmetatable", ForScript<GetMetatable>},
      {"getupvalue", ForScript<LookAtUpvalue<kGetUpvalue>>},
      {"upvalueid", ForScript<LookAtUpvalue<kUpvalueId>>},
      {nullptr, nullptr},
  }};
  lua_getglobal(L, LUA_DBLIBNAME);
  KeepOriginal(L, "getinfo", kGetInfo);
  KeepOriginal(L, "getlocal", kGetLocal);
  KeepOriginal(L, "getupvalue", kGetUpvalue);
  KeepOriginal(L, "upvalueid", kUpvalueId);
  lua_createtable(L, 0, kFunctions.size());
  lua_getfield(L, -2, "traceback");
  lua_setfield(L, -2, "traceback");
  luaL_setfuncs(L, kFunctions.data(), 0);
  luaL_getsubtable(L, LUA_REGISTRYINDEX, LUA_LOADED_TABLE);
  lua_pushvalue(L, -2);
  lua_setfield(L, -2, LUA_DBLIBNAME);
  lua_pop(L, 1);
  lua_setglobal(L, LUA_DBLIBNAME);
  lua_pop(L, 1);
}
