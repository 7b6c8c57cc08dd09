#include <memory>

#include "agent/function_module/functions.h"
#include "agent/function_module/script_container.h"
#include "agent/function_module/script_text.h"
#include "agent/libZelMarlin/script_state.h"
#include "function_module.h"

namespace {

struct ScriptsContainer {
  /// Null when no variable stands for it.
  const VarHandle* variable;
  ZelContainer* container;
};

int AddFunctions(lua_State* L) {
  constexpr struct {
    const char* name;
    void (*push)(lua_State*);
  } kTables[] = {
      {"container", PushContainerFunctions},
      {"action", PushActionFunctions},
      {"log", PushLogFunctions},
      {"session", PushSessionFunctions},
  };
  for (const auto& table : kTables) {
    table.push(L);
    lua_setglobal(L, table.name);
  }
  return 0;
}

/// Replaces the handle that the script sees by the container, which the registry holds as well: it
/// stays although the script may drop the variable.
int PublishContainer(lua_State* L) {
  const auto& scripts = *static_cast<const ScriptsContainer*>(TakeArgument(L));
  PushOutsideContainer(L, *scripts.container);
  lua_pushvalue(L, -1);
  lua_rawsetp(L, LUA_REGISTRYINDEX, scripts.container);
  if (scripts.variable == nullptr) return 0;
  lua_pushglobaltable(L);
  PushText(L, scripts.variable->GetVarName().Utf8());
  lua_pushvalue(L, -3);
  lua_rawset(L, -3);
  return 0;
}

}  // namespace

extern "C" void MarlinModuleOpen(MarlinContext* context) {
  // A failure is in the log, and the script does not run.
  RunInScript(*context, ForScript<AddFunctions>, nullptr);
}

extern "C" void AddContainerVariable(MarlinContext* context, ZelContainer* container) {
  if (container == nullptr) return;
  VarHandle* const variable = FindHandleVariable(*context, container);
  if (!KeepContainer(*context, std::unique_ptr<ZelContainer>(container))) {
    if (variable != nullptr) variable->SetHandleValue(nullptr);
    return;
  }
  ScriptsContainer scripts{variable, container};
  RunInScript(*context, ForScript<PublishContainer>, &scripts);
}

extern "C" void SetActionInvokeAddress(decltype(&ActionDbInvokeContainer) invoke) {
  SetActionInvoker(invoke);
}
