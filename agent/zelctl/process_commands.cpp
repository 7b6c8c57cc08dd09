#include "agent/zelctl/process_commands.h"

#include <cstddef>
#include <optional>
#include <utility>

#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/command_line_text.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/process_output.h"
#include "agent/zelctl/result_code.h"
#include "libZel/string.h"

Result RunProgram(AgentClient& agent, const RunOptions& options) {
  if (options.program.empty()) throw Failure(ExitStatus::kUsage, "the program's name is empty");
  // The agent puts the name in quotes, and knows no way to write one within.
  if (options.program.find('"') != std::string::npos) {
    throw Failure(ExitStatus::kUsage,
                  "the program's name '" + options.program + "' holds a double quote");
  }
  ZelContainer parameters = TextParameter("Path", options.program);
  const std::string line = JoinArguments(options.arguments);
  parameters.SetString("Parameters", ZelString(std::string_view(line)), kNoIndex);
  parameters.SetBool("ProgramContext", options.inUserSession, kNoIndex);
  return Finish(kRunProgram, Invoke(agent, kRunProgram, parameters));
}

Result ListProcesses(AgentClient& agent, const ProcessListOptions& options) {
  const ActionReply reply = Invoke(agent, kListProcess, ZelContainer());
  RequireSuccess(kListProcess, reply);

  std::vector<ProcessRow> rows = ReadProcessRows(reply.container);
  std::erase_if(rows, [&](const ProcessRow& row) { return !MatchesProcess(row, options.filter); });
  SortProcesses(options.order, options.isReversed, &rows);
  if (options.asTree) rows = ArrangeAsTree(std::move(rows));
  const auto limit = static_cast<size_t>(options.limit);
  if (limit > 0 && rows.size() > limit) rows.resize(limit);
  return {FormatProcesses(rows, options.withPaths), reply.body, ""};
}

Result EndProcesses(AgentClient& agent, const std::vector<std::string>& ids) {
  if (ids.empty()) throw Failure(ExitStatus::kUsage, "no process is named");
  ZelContainer parameters;
  uint32_t index = 0;
  for (const std::string& text : ids) {
    const std::optional<uint32_t> id = ParseProcessId(text);
    if (!id) {
      throw Failure(ExitStatus::kUsage, "'" + text +
                                            "' is no process ID: a whole number from 1 to " +
                                            "4294967295, as 26, 0x1A or 032");
    }
    parameters.SetString("ProcessID", ZelString(std::to_string(*id).c_str()), index++);
  }

  const ActionReply reply = Invoke(agent, kTerminateProcess, parameters);
  if (reply.code != kFailureCode) return Finish(kTerminateProcess, reply);
  throw Failure(ExitStatus::kActionFailed,
                (ids.size() == 1 ? "the process " + ids.front() + " could not be ended ("
                                 : "at least one of the processes could not be ended (") +
                    kTerminateProcess + ": " + DescribeCode(reply.code) + ")",
                reply.body);
}
