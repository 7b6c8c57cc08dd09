#include "agent/zelctl/script_command.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <random>
#include <string_view>
#include <utility>

#include "agent/libZelCore/json_codec.h"
#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/interruption.h"
#include "agent/zelctl/local_file.h"
#include "agent/zelctl/remote_text.h"
#include "agent/zelctl/result_code.h"
#include "agent/zelctl/terminal.h"
#include "libZel/string.h"

namespace {

constexpr char kModuleDirectory[] = "ZelCoreUtils/";

std::string_view BaseName(std::string_view path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

/// What follows "FILE:LINE: " or "FILE: ", or all of it when it does not start with the file.
std::string_view WithoutFileAndLine(std::string_view detail, std::string_view baseName) {
  const size_t nameAt = detail.substr(0, detail.find('\n')).find(baseName);
  if (baseName.empty() || nameAt == std::string_view::npos) return detail;
  // The file may be told with its path, or with the end of it behind dots.
  if (nameAt > 0 && std::string_view("/\\.").find(detail[nameAt - 1]) == std::string_view::npos) {
    return detail;
  }
  std::string_view rest = detail.substr(nameAt + baseName.size());
  if (!rest.starts_with(':')) return detail;
  rest.remove_prefix(1);
  const size_t digits = std::min(rest.find_first_not_of("0123456789"), rest.size());
  if (digits > 0 && rest.substr(digits).starts_with(':')) rest.remove_prefix(digits + 1);
  if (!rest.starts_with(' ')) return detail;
  return rest.substr(1);
}

/// A name that no other run uses.
std::string UniqueName() {
  std::random_device random;
  char hex[17];
  std::snprintf(hex, sizeof hex, "%08x%08x", random(), random());
  return std::string("zelctl-") + hex + ".mlx";
}

/// A script of this machine, copied to the agent's machine for one run.
class UploadedScript {
 public:
  UploadedScript(AgentClient& agent, const std::string& localFile) : agent_(agent) {
    const std::string text = RequireUtf8(ReadLocalFile(LocalPath(localFile)), localFile);
    const ActionReply directories = Invoke(agent, kGetDirectories, ZelContainer());
    RequireSuccess(kGetDirectories, directories);
    path_ = RequireText(kGetDirectories, directories, "DataDirectory") + kModuleDirectory +
            UniqueName();
    try {
      WriteRemoteText(agent, path_, text);
    } catch (const Failure&) {
      // A part of it may be there, or all of it when only the answer did not come.
      RemoveAfterFailure();
      throw;
    }
  }

  const std::string& Path() const { return path_; }

  /// Why it is still there, or empty.
  std::string Remove() const {
    Interruption::Reset();
    const ActionReply reply = Invoke(agent_, kDeleteFile, TextParameter("Path", path_));
    if (reply.code == kSuccess) return {};
    return "the copy " + path_ + " could not be deleted: " + DescribeCode(reply.code);
  }

  /// The same where another failure is to be told.
  std::string RemoveAfterFailure() const {
    try {
      return Remove();
    } catch (const Failure& failure) {
      return "the copy " + path_ + " could not be deleted: " + failure.what();
    }
  }

 private:
  AgentClient& agent_;
  std::string path_;
};

/// `script` is what the agent is told, `shown` what the user called it.
Result Run(AgentClient& agent, const ScriptOptions& options, const std::string& script,
           const std::string& shown) {
  std::string json = "{\"Name\":";
  EncodeString(ZelString(std::string_view(script)).Utf8(), &json);
  json += ",\"Params\":" + ParametersToJson(options.parameters) +
          ",\"CompileOnly\":" + (options.compileOnly ? "true" : "false") + "}";
  const ActionReply reply = agent.Call(kRunScript, json);
  if (reply.code == kSuccess) return {"", reply.body, ""};

  ZelString errorText;
  int32_t line = 0;
  const bool isToldWhere = reply.container.GetString("ErrorText", &errorText, kNoIndex) &&
                           reply.container.GetInt32("ErrorLine", &line, kNoIndex);
  if (isToldWhere) {
    Result result{"", reply.body, ""};
    result.diagnostic = FormatScriptError(std::string(errorText.Utf8()), line, script, shown);
    return result;
  }
  if (reply.code != kFailureCode) throw ActionFailure(kRunScript, reply);
  throw Failure(ExitStatus::kActionFailed,
                shown +
                    ": could not be run: there is no such script, or the agent has no function " +
                    "module (" + kRunScript + ": " + DescribeCode(reply.code) + ")",
                reply.body);
}

Result RunLocal(AgentClient& agent, const ScriptOptions& options) {
  // Wrong ones are told before anything is sent.
  ParametersToJson(options.parameters);
  const Interruption interruption;
  const UploadedScript uploaded(agent, options.localFile);
  Result result;
  try {
    result = Run(agent, options, uploaded.Path(), options.localFile);
  } catch (const Failure& failure) {
    const std::string left = uploaded.RemoveAfterFailure();
    throw Failure(failure.Status(), failure.what() + (left.empty() ? "" : "; " + left),
                  failure.Reply());
  }
  result.problem = uploaded.RemoveAfterFailure();
  return result;
}

}  // namespace

Result RunScript(AgentClient& agent, const ScriptOptions& options) {
  if (options.name.empty() == options.localFile.empty()) {
    throw Failure(ExitStatus::kUsage,
                  "a script is wanted: its NAME on the agent's machine, or --local FILE");
  }
  if (!options.localFile.empty()) return RunLocal(agent, options);
  return Run(agent, options, options.name, options.name);
}

std::string FormatScriptError(const std::string& errorText, int32_t line, const std::string& script,
                              const std::string& shown) {
  const std::string where = shown + (line > 0 ? ":" + std::to_string(line) : "") + ": ";
  const size_t lineEnd = errorText.find('\n');
  if (lineEnd == std::string::npos) return where + errorText;

  std::string_view text = std::string_view(errorText).substr(lineEnd + 1);
  if (text.starts_with(' ')) text.remove_prefix(1);
  const size_t colon = text.find(": ");
  const std::string_view detail =
      colon == std::string_view::npos
          ? ""
          : WithoutFileAndLine(text.substr(colon + 2), BaseName(script));
  if (!detail.empty()) return where + std::string(detail);
  while (text.ends_with(' ') || text.ends_with(':')) text.remove_suffix(1);
  return where + std::string(text);
}
