// host/libZelCore: who the agent is, its actions, and how it speaks to others.

#include <string>

#include "tests/fake_host/ask.h"
#include "tests/fake_host/transcript.h"

namespace {

uint32_t AskInvocation(const std::string& function, const std::string& arguments,
                       ZelContainer* parameters) {
  const FakeHost::ScriptedAnswer answer = Host().Ask(function, arguments, kInvokeFailed);
  if (answer.change) answer.change(*parameters);
  return static_cast<uint32_t>(answer.value);
}

}  // namespace

// ---- actions ----

uint32_t ActionDbRegisterAction(const ZelString& signature, ActionHandler handler,
                                void* registrationContext) {
  Host().Remember({std::string(signature.Utf8()), handler, registrationContext});
  const std::string arguments =
      List(Quote(signature), handler ? "handler" : "null", Pointer(registrationContext));
  return Ask32("ActionDbRegisterAction", arguments, 1);
}

uint32_t ActionDbInvokeContainer(const ZelString* targetAgent, const ZelString& targetAddress,
                                 const ZelString& action, ZelContainer* parameters, void* reserved,
                                 uint32_t timeoutMs, uint32_t options, bool isAsynchronous) {
  const std::string arguments =
      List(Quote(targetAgent), Quote(targetAddress), Quote(action), Describe(*parameters),
           Pointer(reserved), AllBits(timeoutMs), AllBits(options), Flag(isAsynchronous));
  return AskInvocation("ActionDbInvokeContainer", arguments, parameters);
}

uint32_t InvokeContainerToMasterWithTempTunnel(const ZelString& action, ZelContainer& parameters,
                                               void* reserved1, void* reserved2, uint32_t timeoutMs,
                                               uint32_t options) {
  const std::string arguments = List(Quote(action), Describe(parameters), Pointer(reserved1),
                                     Pointer(reserved2), AllBits(timeoutMs), AllBits(options));
  return AskInvocation("InvokeContainerToMasterWithTempTunnel", arguments, &parameters);
}

// ---- the agent ----

void ZelAgentGetDataDir(ZelString& directory) {
  directory = AskText("ZelAgentGetDataDir");
}

void ZelAgentGetConfigDir(ZelString& directory) {
  directory = AskText("ZelAgentGetConfigDir");
}

void ZelAgentGetExePath(ZelString& path) {
  path = AskText("ZelAgentGetExePath");
}

void* ZelAgentGetAppHandle() {
  return AskPointer<void>("ZelAgentGetAppHandle");
}

void ZelAgentGetProxyPipeName(ZelString& pipeName) {
  pipeName = AskText("ZelAgentGetProxyPipeName");
}

ZelDebugContext* ZelAgentGetDebugContext() {
  return AskPointer<ZelDebugContext>("ZelAgentGetDebugContext");
}

void ZelAgentGetTranslation(const ZelString& key, const ZelString& language, ZelString& text) {
  text = AskText("ZelAgentGetTranslation", List(Quote(key), Quote(language)));
}

void ZelAgentGetName(ZelString& name) {
  name = AskText("ZelAgentGetName");
}

void ZelAgentGetHttpPassword(ZelString& nameThenPassword) {
  nameThenPassword = AskText("ZelAgentGetHttpPassword", Quote(nameThenPassword));
}

void ZelAgentGetSecurity(ZelString& setting) {
  setting = AskText("ZelAgentGetSecurity");
}

bool AgentSecuritySslForceSecCli() {
  return Ask("AgentSecuritySslForceSecCli") != 0;
}

SslContext* AgentSecuritySslCliCtxAcquire() {
  return AskPointer<SslContext>("AgentSecuritySslCliCtxAcquire");
}

bool AgentSecurityPacForceSecCli() {
  return Ask("AgentSecurityPacForceSecCli") != 0;
}

PacContext* AgentSecurityPacShrCtxAcquire() {
  return AskPointer<PacContext>("AgentSecurityPacShrCtxAcquire");
}
