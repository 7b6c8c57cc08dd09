#include "agent/libZelCore/calling_user.h"

#include <algorithm>
#include <string_view>

#include "agent/libZel/security_context.h"
#include "agent/libZelCore/agent_core_parts.h"
#include "agent/libZelCore/host_functions.h"
#include "agent/libZelCore/invocation_depth.h"

namespace {

constexpr size_t kLongestToldLogin = 256;

constexpr const char* kLogin = "Login";
constexpr const char* kAdministratorFlag = "Administrator";

bool IsToldLogin(std::string_view text) {
  return text.size() <= kLongestToldLogin &&
         std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return c > 0x20 && c < 0x7F; });
}

/// What an agent said about its own caller.
void Believe(const ZelContainer& said, CallingUser* user) {
  ZelString login;
  bool isAdministrator = false;
  const bool isWhole = said.GetString(kLogin, &login, kNoIndex) &&
                       said.GetBool(kAdministratorFlag, &isAdministrator, kNoIndex);
  if (!isWhole || !IsToldLogin(login.Utf8())) return;
  user->login = login.Utf8();
  user->isAdministrator = isAdministrator;
}

/// Who called this agent, where no other agent did.
CallingUser CallerHere(AgentCore::Implementation& core, const std::string& owner) {
  const bool isAdministrator = owner.empty() || core.users.Role(owner) == kAdministrator;
  return {core.settings.agentName, owner, isAdministrator};
}

}  // namespace

CallingUser TakeCallingUser(ZelContainer* parameters) {
  ZelContainer said;
  const bool isSaid = parameters->GetContainer(kCallingUserKey, &said, kNoIndex);
  parameters->Remove(kCallingUserKey);
  AgentCore::Implementation* const core = ServedCore();
  if (!core) return {};

  const std::string& owner = InvocationContext::CurrentOwner();
  if (!owner.starts_with(kAgentLoginPrefix)) return CallerHere(*core, owner);
  CallingUser user;
  user.agent = owner.substr(std::string_view(kAgentLoginPrefix).size());
  if (isSaid) Believe(said, &user);
  return user;
}

void SetCallingUser(ZelContainer* request) {
  request->Remove(kCallingUserKey);
  AgentCore::Implementation* const core = ServedCore();
  const std::string& owner = InvocationContext::CurrentOwner();
  if (!core || owner.starts_with(kAgentLoginPrefix)) return;

  const CallingUser user = CallerHere(*core, owner);
  ZelContainer said;
  said.SetString(kLogin, ZelString(user.login), kNoIndex);
  said.SetBool(kAdministratorFlag, user.isAdministrator, kNoIndex);
  request->SetContainer(kCallingUserKey, said, kNoIndex);
}
