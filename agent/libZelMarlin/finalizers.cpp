#include "agent/libZelMarlin/finalizers.h"

#include <lauxlib.h>

#include "agent/libZel/debug_context.h"
#include "agent/libZelMarlin/interpreter.h"
#include "agent/libZelMarlin/script_state.h"

// A table with a finalizer gets a guardian: a userdata that nothing but the registry's table of
// guardians holds, by the table as its weak key. Both become garbage together, and then the
// guardian is finalized, by a function of our own, and finalizes the table.

namespace {

constexpr const char* kGuardian = "marlin.guardian";
constexpr const char* kGuardians = "marlin.guardians";

void ForgetGuardian(lua_State* L, int object) {
  lua_getfield(L, LUA_REGISTRYINDEX, kGuardians);
  lua_pushvalue(L, object);
  lua_pushnil(L);
  lua_rawset(L, -3);
  lua_pop(L, 1);
}

void TellOfError(lua_State* L, lua_State* finalizer) {
  const char* const reason = lua_tostring(finalizer, -1);
  LibraryLog().WarningWithNL("%s: an error in a finalizer: %s", ScriptName(L),
                             reason != nullptr ? reason : "(no text)");
}

/// The guardian's own finalizer.
int Finalize(lua_State* L) {
  Interpreter& interpreter = Interpreter::Of(L);
  lua_settop(L, 1);
  if (luaL_testudata(L, 1, kGuardian) == nullptr) return 0;
  lua_getiuservalue(L, 1, 1);
  if (interpreter.IsEnding() || !lua_istable(L, 2)) return 0;
  ForgetGuardian(L, 2);
  if (luaL_getmetafield(L, 2, "__gc") != LUA_TFUNCTION) return 0;

  interpreter.CountCoroutine(L);
  lua_State* const finalizer = lua_newthread(L);
  lua_pushvalue(L, 3);
  lua_pushvalue(L, 2);
  lua_xmove(L, finalizer, 2);
  int resultCount = 0;
  const int status = lua_resume(finalizer, L, 1, &resultCount);
  if (interpreter.IsEnding()) {
    Interpreter::StopSoon(L);
  } else if (status > LUA_YIELD) {
    TellOfError(L, finalizer);
  }
  return 0;
}

bool HasGuardian(lua_State* L, int guardians, int object) {
  lua_pushvalue(L, object);
  const bool has = lua_rawget(L, guardians) != LUA_TNIL;
  lua_pop(L, 1);
  return has;
}

void MakeGuardian(lua_State* L, int object) {
  const int top = lua_gettop(L);
  lua_getfield(L, LUA_REGISTRYINDEX, kGuardians);
  if (!HasGuardian(L, top + 1, object)) {
    lua_pushvalue(L, object);
    lua_newuserdatauv(L, 0, 1);
    lua_pushvalue(L, object);
    lua_setiuservalue(L, -2, 1);
    luaL_setmetatable(L, kGuardian);
    lua_rawset(L, top + 1);
  }
  lua_settop(L, top);
}

/// Sets the metatable at index 2 as the one of the table at index 1, hiding its finalizer at index
/// 3 from Lua meanwhile. Both names are on the stack before, so that nothing here needs memory.
void SetWithoutFinalizer(lua_State* L) {
  lua_pushliteral(L, "__gc");
  lua_pushvalue(L, 3);
  lua_pushliteral(L, "__gc");
  lua_pushnil(L);
  lua_rawset(L, 2);
  lua_pushvalue(L, 2);
  lua_setmetatable(L, 1);
  lua_rawset(L, 2);
}

}  // namespace

void PrepareFinalizers(lua_State* L) {
  luaL_newmetatable(L, kGuardian);
  lua_pushcfunction(L, ForScript<Finalize>);
  lua_setfield(L, -2, "__gc");
  lua_pop(L, 1);

  lua_newtable(L);
  lua_createtable(L, 0, 1);
  lua_pushliteral(L, "k");
  lua_setfield(L, -2, "__mode");
  lua_setmetatable(L, -2);
  lua_setfield(L, LUA_REGISTRYINDEX, kGuardians);
}

int SetMetatable(lua_State* L) {
  const int type = lua_type(L, 2);
  luaL_checktype(L, 1, LUA_TTABLE);
  luaL_argexpected(L, type == LUA_TNIL || type == LUA_TTABLE, 2, "nil or table");
  if (luaL_getmetafield(L, 1, "__metatable") != LUA_TNIL) {
    return luaL_error(L, "cannot change a protected metatable");
  }
  lua_settop(L, 2);

  lua_pushliteral(L, "__gc");
  if (type == LUA_TTABLE && lua_rawget(L, 2) != LUA_TNIL) {
    MakeGuardian(L, 1);
    SetWithoutFinalizer(L);
  } else {
    lua_settop(L, 2);
    lua_setmetatable(L, 1);
  }
  lua_settop(L, 1);
  return 1;
}
