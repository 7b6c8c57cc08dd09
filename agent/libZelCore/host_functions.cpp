#include "agent/libZelCore/host_functions.h"

#include <string>

#include "agent/libZel/native_path.h"
#include "agent/libZelCore/agent_core_parts.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/master_tunnel.h"
#include "libZelCore.h"

std::atomic<AgentCore::Implementation*>& ServedCore() {
  static std::atomic<AgentCore::Implementation*> core{nullptr};
  return core;
}

namespace {

uint32_t Register(const ZelString& signature, ActionHandler handler, void* context) {
  AgentCore::Implementation* const core = ServedCore();
  if (!core || !handler || !core->actions.IsOwner(context)) return 1;
  const auto* const owner = static_cast<const ActionDatabase::Owner*>(context);
  if (core->actions.Register(signature, handler, owner)) return 0;
  CoreLog().WarningWithNL("Module %s: the action \"%S\" has no name, or one that is taken",
                          owner->moduleName.c_str(), signature);
  return 1;
}

uint32_t InvokeHere(AgentCore::Implementation& core, const ZelString* agent,
                    const ZelString& action, ZelContainer* parameters) {
  const bool isHere = !agent || agent->IsEmpty() || agent->Utf8() == core.settings.agentName;
  if (isHere) return core.actions.Invoke(action.Utf8(), parameters);
  CoreLog().WarningWithNL("Action %S on agent \"%S\" did not run: no address is given for it",
                          action, *agent);
  return kInvokeNotConfigured;
}

uint32_t Invoke(const ZelString* agent, const ZelString& address, const ZelString& action,
                ZelContainer* parameters, uint32_t timeoutMs) {
  AgentCore::Implementation* const core = ServedCore();
  if (!core) return kInvokeNotConfigured;
  ZelContainer unused;
  if (!parameters) parameters = &unused;
  if (address.IsEmpty()) return InvokeHere(*core, agent, action, parameters);

  const RemoteResult result = core->remote.Invoke(
      std::string(address.Utf8()), std::string(action.Utf8()), parameters, timeoutMs);
  if (!result.error.empty()) {
    CoreLog().WarningWithNL(
        "Action %S on agent \"%S\" at %s did not run: %s", action, agent ? *agent : ZelString(),
        WithoutCredentials(std::string(address.Utf8())).c_str(), result.error.c_str());
  }
  return result.code;
}

uint32_t AskMaster(const ZelString& action, ZelContainer* parameters, uint32_t timeoutMs) {
  AgentCore::Implementation* const core = ServedCore();
  if (!core) return kInvokeNotConfigured;
  return InvokeMaster(*core, action, parameters, timeoutMs);
}

std::string Translate(AgentCore::Implementation& core, const std::string& key,
                      const std::string& language) {
  if (!language.empty()) return core.texts->Find(key, language);
  return core.texts->Find(key, core.texts->LanguageAt(core.proxies->Pipe()));
}

// Nothing may be thrown at a module; what is left to throw is a lack of memory.
template <typename Function>
uint32_t Guarded(uint32_t failure, Function function) noexcept {
  try {
    return function();
  } catch (...) {
    return failure;
  }
}

}  // namespace

uint32_t ActionDbRegisterAction(const ZelString& signature, ActionHandler handler,
                                void* registrationContext) {
  return Guarded(1, [&] { return Register(signature, handler, registrationContext); });
}

uint32_t ActionDbInvokeContainer(const ZelString* targetAgent, const ZelString& targetAddress,
                                 const ZelString& action, ZelContainer* parameters, void*,
                                 uint32_t timeoutMs, uint32_t, bool) {
  return Guarded(kInvokeFailed,
                 [&] { return Invoke(targetAgent, targetAddress, action, parameters, timeoutMs); });
}

uint32_t InvokeContainerToMasterWithTempTunnel(const ZelString& action, ZelContainer& parameters,
                                               void*, void*, uint32_t timeoutMs, uint32_t) {
  return Guarded(kInvokeFailed, [&] { return AskMaster(action, &parameters, timeoutMs); });
}

void ZelAgentGetDataDir(ZelString& directory) {
  Guarded(0, [&] {
    directory.Clear();
    const AgentCore::Implementation* const core = ServedCore();
    if (core) directory = WithSeparator(core->data);
    return 0u;
  });
}

void ZelAgentGetConfigDir(ZelString& directory) {
  Guarded(0, [&] {
    directory.Clear();
    const AgentCore::Implementation* const core = ServedCore();
    if (core) directory = WithSeparator(core->config);
    return 0u;
  });
}

void ZelAgentGetExePath(ZelString& path) {
  Guarded(0, [&] {
    path = FromNativePath(core_platform::ExecutablePath());
    return 0u;
  });
}

void* ZelAgentGetAppHandle() {
  return core_platform::ApplicationHandle();
}

void ZelAgentGetProxyPipeName(ZelString& pipeName) {
  Guarded(0, [&] {
    pipeName.Clear();
    AgentCore::Implementation* const core = ServedCore();
    if (core) pipeName = core->proxies->Pipe();
    return 0u;
  });
}

SysTray& ZelAgentGetSysTray() {
  static SysTray sysTray([] {
    ZelString pipeName;
    ZelAgentGetProxyPipeName(pipeName);
    return pipeName;
  });
  return sysTray;
}

void ZelAgentGetTranslation(const ZelString& key, const ZelString& language, ZelString& text) {
  Guarded(0, [&] {
    const std::string name(key.Utf8());
    AgentCore::Implementation* const core = ServedCore();
    text = core ? Translate(*core, name, std::string(language.Utf8())) : name;
    return 0u;
  });
}

const Settings* CurrentSettings() {
  const AgentCore::Implementation* const core = ServedCore();
  return core ? &core->settings : nullptr;
}

ZelDebugContext* ZelAgentGetDebugContext() {
  AgentCore::Implementation* const core = ServedCore();
  return core ? &core->context : nullptr;
}
