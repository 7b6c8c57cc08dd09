#include "libZelCore.h"

void ZelAgentGetName(ZelString& name) {
  name.Clear();
}
void ZelAgentGetHttpPassword(ZelString& nameThenPassword) {
  nameThenPassword.Clear();
}
void ZelAgentGetSecurity(ZelString& setting) {
  setting.Clear();
}
bool AgentSecuritySslForceSecCli() {
  return false;
}
SslContext* AgentSecuritySslCliCtxAcquire() {
  return nullptr;
}
bool AgentSecurityPacForceSecCli() {
  return false;
}
PacContext* AgentSecurityPacShrCtxAcquire() {
  return nullptr;
}
