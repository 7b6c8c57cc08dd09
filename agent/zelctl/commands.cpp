#include "agent/zelctl/commands.h"

#include <set>

#include "agent/libZelCore/audit_log.h"
#include "agent/libZelCore/json_codec.h"
#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/name_match.h"
#include "agent/zelctl/result_code.h"
#include "agent/zelctl/text_output.h"
#include "libZel/string.h"

namespace {

/// Arguments are bytes of the command line: what is not UTF-8 travels as the codec's escapes.
void AppendText(const std::string& argument, std::string* json) {
  EncodeString(ZelString(std::string_view(argument)).Utf8(), json);
}

std::string SuggestAction(AgentClient& agent, const std::string& name) {
  std::vector<std::string> names;
  for (const ActionDescription& action : ParseActionList(agent.ActionList())) {
    names.push_back(action.name);
  }
  return NearestName(name, names);
}

}  // namespace

std::string ParametersToJson(const std::vector<std::string>& arguments) {
  std::set<std::string> keys;
  std::string json = "{";
  for (const std::string& argument : arguments) {
    const auto refuse = [&argument](const std::string& why) {
      throw Failure(ExitStatus::kUsage, "the parameter '" + argument + "' " + why);
    };
    const size_t equals = argument.find('=');
    if (equals == std::string::npos) refuse("is neither key=text nor key:=json");
    const bool isJson = equals > 0 && argument[equals - 1] == ':';
    const std::string key = argument.substr(0, isJson ? equals - 1 : equals);
    const std::string value = argument.substr(equals + 1);
    if (key.empty()) refuse("has no key");
    if (!keys.insert(key).second) refuse("gives its key a second time");

    if (json.size() > 1) json += ",";
    AppendText(key, &json);
    json += ":";
    if (!isJson) {
      AppendText(value, &json);
      continue;
    }
    const JsonDecodeResult decoded = DecodeContainer("{\"value\":" + value + "}");
    if (!decoded.error.empty()) refuse("has no usable JSON value: " + decoded.error);
    if (decoded.container.CountKeys() > 1) refuse("has more than one JSON value");
    json += value;
  }
  return json + "}";
}

Result ShowHealth(AgentClient& agent) {
  const std::string body = agent.Health();
  const JsonDecodeResult health = DecodeContainer(body);
  ZelString status;
  if (!health.error.empty() || !health.container.GetString("status", &status, kNoIndex)) {
    throw Failure(ExitStatus::kAgentRefused, "this does not answer as an agent: no status", body);
  }
  if (status != "ok") {
    throw Failure(ExitStatus::kActionFailed, "the agent's status is " + std::string(status.Utf8()),
                  body);
  }
  return {EscapeForTerminal(status.Utf8()) + "\n", body, ""};
}

Result ListActions(AgentClient& agent, const std::string& pattern) {
  const std::string body = agent.ActionList();
  std::vector<std::vector<std::string>> rows;
  std::string json = "[";
  for (const ActionDescription& action : ParseActionList(body)) {
    if (!MatchesPattern(action.name, pattern)) continue;
    rows.push_back({action.name, action.signature});
    json += json.size() > 1 ? ",{\"name\":" : "{\"name\":";
    EncodeString(action.name, &json);
    json += ",\"signature\":";
    EncodeString(action.signature, &json);
    json += "}";
  }
  const std::string text = rows.empty() ? "" : FormatTable({"NAME", "SIGNATURE"}, rows);
  return {text, pattern.empty() ? body : json + "]", ""};
}

Result CallAction(AgentClient& agent, const std::string& name,
                  const std::vector<std::string>& arguments) {
  const std::string parameters = ParametersToJson(arguments);
  try {
    const ActionReply reply = agent.Call(name, parameters);
    const bool isGood = reply.code == kSuccess;
    return {FormatContainer(reply.container), reply.body,
            isGood ? "" : name + ": " + DescribeCode(reply.code)};
  } catch (const Failure& failure) {
    const JsonDecodeResult reply = DecodeContainer(failure.Reply());
    ZelContainer error;
    ZelString code;
    reply.container.GetContainer("error", &error, kNoIndex);
    error.GetString("code", &code, kNoIndex);
    if (code != "unknown_action") throw;
    const std::string nearest = SuggestAction(agent, name);
    throw Failure(
        failure.Status(),
        "there is no action " + name + (nearest.empty() ? "" : "; did you mean " + nearest + "?"),
        failure.Reply());
  }
}

namespace {

std::string WholeChain(const AuditVerdict& verdict) {
  std::string text = "the chain is whole: " + std::to_string(verdict.lines) + " lines";
  if (verdict.files > 1) text += " in " + std::to_string(verdict.files) + " files";
  if (verdict.firstFile > 1) {
    text += ", from file " + std::to_string(verdict.firstFile) + " on: those before are not here";
  }
  return text;
}

}  // namespace

Result VerifyAudit(const std::filesystem::path& file) {
  const AuditVerdict verdict = VerifyAuditLog(file);
  ZelContainer answer;
  answer.SetBool("Whole", verdict.isWhole, kNoIndex);
  answer.SetInt64("Lines", static_cast<int64_t>(verdict.lines), kNoIndex);
  answer.SetInt64("Files", static_cast<int64_t>(verdict.files), kNoIndex);
  answer.SetInt64("FirstFile", static_cast<int64_t>(verdict.firstFile), kNoIndex);
  if (!verdict.isWhole) {
    answer.SetString("BadFile", verdict.badFile, kNoIndex);
    answer.SetInt64("BadLine", static_cast<int64_t>(verdict.badLine), kNoIndex);
    answer.SetString("Reason", verdict.reason, kNoIndex);
  }
  std::string json;
  EncodeContainer(answer, &json);
  if (verdict.isWhole) return {WholeChain(verdict) + "\n", json, ""};
  if (verdict.badLine == 0) throw Failure(ExitStatus::kUsage, verdict.reason, json);
  throw Failure(
      ExitStatus::kActionFailed,
      verdict.badFile + ", line " + std::to_string(verdict.badLine) + ": " + verdict.reason, json);
}
