#include <lauxlib.h>

#include <atomic>

#include "agent/function_module/conversion.h"
#include "agent/function_module/functions.h"
#include "agent/function_module/script_container.h"
#include "agent/function_module/script_text.h"
#include "agent/libZelMarlin/script_state.h"

namespace {

constexpr uint32_t kConfiguredTime = ~0U;
constexpr uint32_t kNoOptions = ~0U;

std::atomic<decltype(&ActionDbInvokeContainer)> invoker{nullptr};

/// Where an action runs: on this agent unless one of them is set.
struct Target {
  ZelString id;
  ZelString address;
};

/// The text in a field of the table at `table`; empty when the field is absent.
ZelString TextField(lua_State* L, int table, const char* name) {
  const int type = lua_getfield(L, table, name);
  if (type != LUA_TNIL && type != LUA_TSTRING) {
    luaL_argerror(L, table, lua_pushfstring(L, "'%s' is a %s", name, lua_typename(L, type)));
  }
  ZelString text = type == LUA_TSTRING ? TextAt(L, -1) : ZelString();
  lua_pop(L, 1);
  return text;
}

Target CheckTarget(lua_State* L, int index) {
  if (lua_isnoneornil(L, index)) return {};
  if (lua_type(L, index) == LUA_TSTRING) return {{}, TextAt(L, index)};
  luaL_argexpected(L, lua_istable(L, index), index, "string or table");
  Target target{TextField(L, index, "id"), TextField(L, index, "address")};
  if (target.id.IsEmpty() && target.address.IsEmpty()) {
    luaL_argerror(L, index, "the table has neither 'id' nor 'address'");
  }
  return target;
}

ZelContainer CheckParameters(lua_State* L, int index) {
  if (lua_isnoneornil(L, index)) return {};
  if (const ScriptContainer* const object = ContainerAt(L, index)) return object->container;
  return CheckWholeContainer(L, index);
}

int Invoke(lua_State* L) {
  const ZelString action = CheckText(L, 1);
  ZelContainer parameters = CheckParameters(L, 2);
  const Target target = CheckTarget(L, 3);
  const auto invoke = invoker.load();
  if (invoke == nullptr) return luaL_error(L, "actions cannot be invoked from here");

  const uint32_t code = invoke(target.id.IsEmpty() ? nullptr : &target.id, target.address, action,
                               &parameters, nullptr, kConfiguredTime, kNoOptions, false);
  lua_pushinteger(L, code);
  PushTable(L, parameters);
  return 2;
}

constexpr luaL_Reg kFunctions[] = {
    {"invoke", ForScript<Invoke>},
    {nullptr, nullptr},
};

}  // namespace

void SetActionInvoker(decltype(&ActionDbInvokeContainer) invoke) {
  invoker = invoke;
}

void PushActionFunctions(lua_State* L) {
  luaL_newlib(L, kFunctions);
}
