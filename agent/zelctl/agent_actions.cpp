#include "agent/zelctl/agent_actions.h"

#include <string_view>

#include "agent/libZelCore/json_codec.h"
#include "agent/zelctl/result_code.h"
#include "libZel/string.h"

namespace {

Failure MissingValue(const std::string& action, const ActionReply& reply, const char* key) {
  return {ExitStatus::kAgentRefused, action + ": the reply has no usable " + key, reply.body};
}

}  // namespace

ZelContainer TextParameter(const char* key, const std::string& value) {
  ZelContainer parameters;
  parameters.SetString(key, ZelString(std::string_view(value)), kNoIndex);
  return parameters;
}

ActionReply Invoke(AgentClient& agent, const char* action, const ZelContainer& parameters) {
  std::string json;
  EncodeContainer(parameters, &json);
  return agent.Call(action, json);
}

Failure ActionFailure(const std::string& action, const ActionReply& reply) {
  return {ExitStatus::kActionFailed, action + ": " + DescribeCode(reply.code), reply.body};
}

void RequireSuccess(const std::string& action, const ActionReply& reply) {
  if (reply.code != kSuccess) throw ActionFailure(action, reply);
}

void RequireListing(const std::string& directory, const ActionReply& reply) {
  if (reply.code != kFailureCode) return RequireSuccess(kGetDirList, reply);
  throw Failure(ExitStatus::kActionFailed,
                directory + ": cannot be opened: it is no directory, does not exist, or the " +
                    "agent may not read it (" + kGetDirList + ": " + DescribeCode(reply.code) + ")",
                reply.body);
}

Result Finish(const std::string& action, const ActionReply& reply) {
  RequireSuccess(action, reply);
  return {"", reply.body, ""};
}

std::string RequireText(const std::string& action, const ActionReply& reply, const char* key) {
  ZelString text;
  if (!reply.container.GetString(key, &text, kNoIndex)) throw MissingValue(action, reply, key);
  return std::string(text.Utf8());
}

uint32_t RequireUnsigned(const std::string& action, const ActionReply& reply, const char* key) {
  uint32_t value = 0;
  if (!reply.container.GetInt32(key, &value, kNoIndex)) throw MissingValue(action, reply, key);
  return value;
}

ActionReply ProbeDirectory(AgentClient& agent, const std::string& path) {
  ZelContainer parameters = TextParameter("Path", path);
  parameters.SetBool("Parameters", false, kNoIndex);
  parameters.SetInt32("Count", 1, kNoIndex);
  return Invoke(agent, kGetDirList, parameters);
}

std::string TextOf(const ZelContainer& container, const char* key) {
  ZelString text;
  container.GetString(key, &text, kNoIndex);
  return std::string(text.Utf8());
}

Failure UnknownAnswer(const char* action, const ActionReply& reply) {
  return {ExitStatus::kAgentRefused, std::string(action) + ": the reply makes no sense",
          reply.body};
}
