#include "agent/libZelCore/master_tunnel.h"

#include <string>
#include <string_view>
#include <utility>

#include "agent/libZel/security_context.h"
#include "agent/libZelCore/agent_core_parts.h"
#include "agent/libZelCore/calling_user.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/excerpt.h"
#include "agent/libZelCore/invocation_depth.h"

namespace {

constexpr size_t kLongestLoggedText = 400;

const char* MasterFailure(uint32_t code) {
  switch (code) {
    case kInvokeNotConfigured:
      return "the connection to the master is not configured";
    case kInvokeUnreachable:
      return "the master is not reachable";
    case kInvokeRefused:
      return "the connection was refused";
    case kInvokeUnknownAction:
      return "the master has no such action";
    default:
      return "the invocation failed";
  }
}

RemoteResult AskItself(AgentCore::Implementation& core, std::string_view action,
                       ZelContainer* request) {
  // Counted like an invocation over the network: a script that runs itself this way must end.
  const uint32_t depth = InvocationContext::CurrentDepth() + 1;
  if (depth > kMaxInvocationDepth)
    return {kInvokeRefused, "agents have handed it on to each other too often"};
  const InvocationContext context(depth, kAgentLoginPrefix + core.settings.agentName);
  const uint32_t code = core.actions.Invoke(action, request);
  // An action that ran may hand on this code itself.
  if (code == kInvokeUnknownAction && !core.actions.Contains(action))
    return {code, "no such action is registered"};
  return {code, {}};
}

void LogAnswer(const ZelString& action, uint32_t code, const ZelContainer& answer) {
  ZelString problem;
  answer.GetString("Error", &problem, kNoIndex);
  if (!problem.IsEmpty()) {
    CoreLog().WarningWithNL("Action %S on the master: it answered with code %u: %s", action, code,
                            Excerpt(problem.Utf8(), kLongestLoggedText).c_str());
  } else if (code != 0) {
    CoreLog().WarningWithNL("Action %S on the master: it failed with code %u", action, code);
  }
}

}  // namespace

uint32_t InvokeMaster(AgentCore::Implementation& core, const ZelString& action,
                      ZelContainer* parameters, uint32_t timeoutMs) {
  const Settings& settings = core.settings;
  const bool isItself = settings.masterAddress.empty() && settings.isMaster;
  if (settings.masterAddress.empty() && !isItself) {
    CoreLog().WarningWithNL("Action %S on the master: no master is configured ([master] address)",
                            action);
    return kInvokeNotConfigured;
  }
  const std::string name(action.Utf8());
  const std::string place = isItself ? "this agent" : WithoutCredentials(settings.masterAddress);
  if (timeoutMs == ~0U) timeoutMs = settings.masterTimeoutMs;

  ZelContainer request = *parameters;
  SetCallingUser(&request);
  const RemoteResult result =
      isItself ? AskItself(core, name, &request)
               : core.remote.Invoke(settings.masterAddress, name, &request, timeoutMs);
  if (!result.error.empty()) {
    CoreLog().WarningWithNL("Action %S on the master: %s (%s): %s", action,
                            MasterFailure(result.code), place.c_str(), result.error.c_str());
    return result.code;
  }
  // An action that leaves its parameters as they are sends this back.
  request.Remove(kCallingUserKey);
  *parameters = std::move(request);
  LogAnswer(action, result.code, *parameters);
  return result.code;
}
