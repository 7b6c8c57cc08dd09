#include "agent/libZel/security_context.h"

#include <string>

#include "agent/libZelCore/agent_core_parts.h"
#include "agent/libZelCore/host_functions.h"
#include "libZelCore.h"

// The functions of libZelCore.h about who this agent is and how it speaks with others.

namespace {

const char* SslText(SslUse use) {
  switch (use) {
    case SslUse::kSend:
      return "_DB_SSL_HTTPS_SEND_";
    case SslUse::kSendAndReceive:
      return "_DB_SSL_HTTPS_SENDANDRECEIVE_";
    case SslUse::kSendAndReceiveExt:
      return "_DB_SSL_HTTPS_SENDANDRECEIVEEXT_";
    case SslUse::kNone:
      break;
  }
  return "_DB_SSL_HTTPS_NONE_";
}

// A lack of memory leaves the text empty: nothing may be thrown at a module.
template <typename Text>
void Answer(ZelString& answer, Text text) noexcept {
  try {
    answer = text();
  } catch (...) {
    answer.Clear();
  }
}

}  // namespace

void ZelAgentGetName(ZelString& name) {
  const AgentCore::Implementation* const core = ServedCore();
  Answer(name, [&] { return ZelString(core ? core->settings.agentName : std::string()); });
}

void ZelAgentGetHttpPassword(ZelString& nameThenPassword) {
  const AgentCore::Implementation* const core = ServedCore();
  Answer(nameThenPassword, [&]() -> ZelString {
    if (!core || core->settings.fleetSecret.empty() || nameThenPassword.IsEmpty()) return {};
    return FleetPassword(core->settings.fleetSecret, nameThenPassword.Utf8());
  });
}

void ZelAgentGetSecurity(ZelString& setting) {
  const AgentCore::Implementation* const core = ServedCore();
  Answer(setting, [&] { return ZelString(SslText(core ? core->settings.ssl : SslUse::kNone)); });
}

bool AgentSecuritySslForceSecCli() {
  const AgentCore::Implementation* const core = ServedCore();
  return core && core->settings.ssl != SslUse::kNone;
}

SslContext* AgentSecuritySslCliCtxAcquire() {
  AgentCore::Implementation* const core = ServedCore();
  return core && !core->sslContext.authorityFile.empty() ? &core->sslContext : nullptr;
}

bool AgentSecurityPacForceSecCli() {
  const AgentCore::Implementation* const core = ServedCore();
  return core && core->settings.pac != PacUse::kNone;
}

PacContext* AgentSecurityPacShrCtxAcquire() {
  AgentCore::Implementation* const core = ServedCore();
  return core && !core->pacContext.fleetSecret.empty() ? &core->pacContext : nullptr;
}
