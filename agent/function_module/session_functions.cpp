#include <lauxlib.h>

#include "agent/function_module/functions.h"
#include "agent/function_module/script_text.h"
#include "agent/libZel/proxy_session.h"
#include "agent/libZelMarlin/script_state.h"

namespace {

constexpr const char* kNoSession = "there is no user session";

/// The connection to the user's session; null when there is none.
XmlProxyClient* Client(lua_State* L) {
  XmlProxyClient* const client = ContextOf(L).GetXmlProxyClient();
  return client != nullptr && client->GetConnection() != nullptr ? client : nullptr;
}

/// The two results of a failure: nil and why.
int Fail(lua_State* L, const ZelString& reason) {
  luaL_pushfail(L);
  PushText(L, reason.Utf8());
  return 2;
}

void SetText(lua_State* L, const char* name, const ZelString& text) {
  PushText(L, text.Utf8());
  lua_setfield(L, -2, name);
}

int Connected(lua_State* L) {
  lua_pushboolean(L, Client(L) != nullptr ? 1 : 0);
  return 1;
}

int Info(lua_State* L) {
  XmlProxyClient* const client = Client(L);
  if (client == nullptr) return Fail(L, kNoSession);
  const SessionInfo session = SessionOf(*client);
  if (!session.outcome) return Fail(L, session.outcome.reason);

  lua_createtable(L, 0, 5);
  SetText(L, "user", session.userName);
  SetText(L, "id", session.sessionId);
  SetText(L, "platform", session.platform);
  lua_pushinteger(L, session.processId);
  lua_setfield(L, -2, "process_id");
  lua_pushinteger(L, session.startedAt);
  lua_setfield(L, -2, "started_at");
  return 1;
}

int Run(lua_State* L) {
  const ZelString commandLine = CheckText(L, 1);
  XmlProxyClient* const client = Client(L);
  if (client == nullptr) return Fail(L, kNoSession);
  const Outcome outcome = RunInSession(*client, commandLine);
  if (!outcome) return Fail(L, outcome.reason);
  lua_pushboolean(L, 1);
  return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"connected", ForScript<Connected>},
    {"info", ForScript<Info>},
    {"run", ForScript<Run>},
    {nullptr, nullptr},
};

}  // namespace

void PushSessionFunctions(lua_State* L) {
  luaL_newlib(L, kFunctions);
}
