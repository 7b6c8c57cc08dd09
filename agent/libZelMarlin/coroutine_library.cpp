#include <lualib.h>

#include "agent/libZelMarlin/interpreter.h"
#include "agent/libZelMarlin/library_changes.h"
#include "agent/libZelMarlin/script_state.h"

namespace {

int CreateCoroutine(lua_State* L) {
  luaL_checktype(L, 1, LUA_TFUNCTION);
  Interpreter::Of(L).CountCoroutine(L);
  lua_State* const coroutine = lua_newthread(L);
  lua_pushvalue(L, 1);
  lua_xmove(L, coroutine, 1);
  return 1;
}

/// Resumes with the `count` values on top of the stack. Leaves the results there and returns how
/// many they are; -1 with an error object on top.
int ResumeWith(lua_State* L, lua_State* coroutine, int count) {
  if (lua_checkstack(coroutine, count) == 0) {
    lua_pushliteral(L, "too many arguments to resume");
    return -1;
  }
  lua_xmove(L, coroutine, count);
  int resultCount = 0;
  const int status = lua_resume(coroutine, L, count, &resultCount);
  PassEndOn(L);
  if (status != LUA_OK && status != LUA_YIELD) {
    lua_xmove(coroutine, L, 1);
    return -1;
  }
  if (lua_checkstack(L, resultCount + 1) == 0) {
    lua_pop(coroutine, resultCount);
    lua_pushliteral(L, "too many results to resume");
    return -1;
  }
  lua_xmove(coroutine, L, resultCount);
  return resultCount;
}

int ResumeCoroutine(lua_State* L) {
  lua_State* const coroutine = lua_tothread(L, 1);
  luaL_argexpected(L, coroutine != nullptr, 1, "coroutine");
  const int count = ResumeWith(L, coroutine, lua_gettop(L) - 1);
  if (count < 0) {
    lua_pushboolean(L, 0);
    lua_insert(L, -2);
    return 2;
  }
  lua_pushboolean(L, 1);
  lua_insert(L, -(count + 1));
  return count + 1;
}

/// Closes a coroutine that has failed, counted among the calls of `L`.
int CloseCoroutine([[maybe_unused]] lua_State* L, lua_State* coroutine) {
#if LUA_VERSION_RELEASE_NUM >= 50406
  return lua_closethread(coroutine, L);
#else
  return lua_resetthread(coroutine);
#endif
}

int CallWrapped(lua_State* L) {
  lua_State* const coroutine = lua_tothread(L, lua_upvalueindex(1));
  const int count = ResumeWith(L, coroutine, lua_gettop(L));
  if (count >= 0) return count;

  const int status = lua_status(coroutine);
  if (status != LUA_OK && status != LUA_YIELD) {
    // Its variables to be closed are closed now, which can replace the error.
    if (lua_checkstack(coroutine, 1) != 0) {
      lua_pushvalue(L, -1);
      lua_xmove(L, coroutine, 1);
    }
    if (CloseCoroutine(L, coroutine) != LUA_OK) lua_xmove(coroutine, L, 1);
    PassEndOn(L);
  }
  if (status != LUA_ERRMEM && lua_type(L, -1) == LUA_TSTRING) {
    luaL_where(L, 1);
    lua_insert(L, -2);
    lua_concat(L, 2);
  }
  return lua_error(L);
}

int WrapCoroutine(lua_State* L) {
  CreateCoroutine(L);
  lua_pushcclosure(L, ForScript<CallWrapped>, 1);
  return 1;
}

}  // namespace

void ChangeCoroutineLibrary(lua_State* L) {
  lua_getglobal(L, LUA_COLIBNAME);
  KeepOriginal(L, "close", kCloseCoroutine);
  Replace(L, {{"create", ForScript<CreateCoroutine>},
              {"resume", ForScript<ResumeCoroutine>},
              {"wrap", ForScript<WrapCoroutine>},
              {"close", ForScript<CallOriginal<kCloseCoroutine>>}});
  lua_pop(L, 1);
}
