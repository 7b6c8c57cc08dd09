#include <lauxlib.h>

#include "agent/function_module/functions.h"
#include "agent/function_module/script_text.h"
#include "agent/libZel/debug_context.h"
#include "agent/libZelMarlin/script_state.h"

namespace {

constexpr size_t kMostLineBytes = 65536;

/// Formats the arguments as `string.format`, the upvalue, does.
ZelString CheckLine(lua_State* L) {
  luaL_checkstring(L, 1);
  lua_pushvalue(L, lua_upvalueindex(1));
  lua_insert(L, 1);
  const int status = lua_pcall(L, lua_gettop(L) - 1, 1, 0);
  if (status == LUA_ERRMEM) RaiseMemoryError(L);
  if (status != LUA_OK) {
    // Its own place is not in the script, ours is.
    const char* const reason = lua_tostring(L, -1);
    luaL_error(L, "%s", reason != nullptr ? reason : "an error without a text");
  }
  return TextAt(L, -1).SubString(0, kMostLineBytes);
}

template <ZelDebugLevel kLevel>
int Write(lua_State* L) {
  const ZelString line = CheckLine(L);
  const char* const script = ScriptName(L);
  // The line is an argument, so that no format of the script's is taken for one of ours.
  constexpr const char* kFormat = "%s: %S";
  switch (kLevel) {
    case ZelDebugLevel::kError:
      LibraryLog().ErrorWithNL(kFormat, script, line);
      break;
    case ZelDebugLevel::kWarning:
      LibraryLog().WarningWithNL(kFormat, script, line);
      break;
    case ZelDebugLevel::kPrint:
      LibraryLog().PrintWithNL(kFormat, script, line);
      break;
    case ZelDebugLevel::kTrace:
      LibraryLog().TraceWithNL(kFormat, script, line);
      break;
    case ZelDebugLevel::kDetail:
      LibraryLog().DetailWithNL(kFormat, script, line);
      break;
  }
  return 0;
}

int Audit(lua_State* L) {
  const ZelString user = CheckText(L, 1);
  const ZelString address = CheckText(L, 2);
  const ZelString text = CheckText(L, 3).SubString(0, kMostLineBytes);
  LibraryLog().AuditWithNL(user, address, "%s: %S", ScriptName(L), text);
  return 0;
}

constexpr luaL_Reg kFunctions[] = {
    {"error", ForScript<Write<ZelDebugLevel::kError>>},
    {"warning", ForScript<Write<ZelDebugLevel::kWarning>>},
    {"print", ForScript<Write<ZelDebugLevel::kPrint>>},
    {"trace", ForScript<Write<ZelDebugLevel::kTrace>>},
    {"detail", ForScript<Write<ZelDebugLevel::kDetail>>},
    {"audit", ForScript<Audit>},
    {nullptr, nullptr},
};

}  // namespace

void PushLogFunctions(lua_State* L) {
  luaL_newlibtable(L, kFunctions);
  lua_getglobal(L, "string");
  lua_getfield(L, -1, "format");
  lua_remove(L, -2);
  luaL_setfuncs(L, kFunctions, 1);
}
