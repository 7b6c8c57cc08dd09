#include "agent/zelctl/task_commands.h"

#include <string_view>

#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/result_code.h"
#include "agent/zelctl/task_output.h"
#include "libZel/string.h"

namespace {

constexpr char kName[] = "_DB_ATTR_NAME_";
constexpr char kDescription[] = "_DB_ATTR_DESCRIPTION_";
constexpr char kPriority[] = "_DB_ATTR_PRIORITY_";
constexpr char kRequestedBy[] = "_DB_ATTR_REQUESTEDBY_";
constexpr char kNotes[] = "_DB_ATTR_NOTES_";
constexpr char kStatus[] = "_DB_ATTR_STATUS_";

/// What is empty is not sent: to the action it is the same.
void SetUnlessEmpty(const char* key, const std::string& text, ZelContainer* parameters) {
  if (!text.empty()) parameters->SetString(key, ZelString(std::string_view(text)), kNoIndex);
}

void SetRequester(const AgentClient& agent, const std::string& requester,
                  ZelContainer* parameters) {
  SetUnlessEmpty(kRequestedBy, requester.empty() ? agent.Address().user : requester, parameters);
}

bool RequireVerdict(const char* action, const ActionReply& reply) {
  bool isYes = false;
  if (reply.container.GetBool("Result", &isYes, kNoIndex)) return isYes;
  throw Failure(ExitStatus::kAgentRefused, std::string(action) + ": the reply has no usable Result",
                reply.body);
}

/// The result of a change. A refusal and a master that is away look the same here.
Result FinishChange(const char* action, const ActionReply& reply, const char* success) {
  RequireSuccess(action, reply);
  if (RequireVerdict(action, reply)) return {success, reply.body, ""};
  throw Failure(ExitStatus::kActionFailed,
                std::string("the master refused, or could not be asked; the agent's log says why "
                            "(") +
                    action + ")",
                reply.body);
}

/// The answer of a master that keeps tasks.
ActionReply RequireTasksAreKept(AgentClient& agent) {
  ActionReply reply = Invoke(agent, kCheckTask, ZelContainer());
  if (reply.code == kMasterNotInvoked) {
    throw Failure(ExitStatus::kActionFailed,
                  std::string("the master could not be asked; the agent's log says why (") +
                      kCheckTask + ": " + DescribeCode(reply.code) + ")",
                  reply.body);
  }
  RequireSuccess(kCheckTask, reply);
  if (RequireVerdict(kCheckTask, reply)) return reply;
  throw Failure(
      ExitStatus::kActionFailed,
      std::string("the master cannot keep tasks; the agent's log says why (") + kCheckTask + ")",
      reply.body);
}

}  // namespace

Result AddTask(AgentClient& agent, const TaskAddOptions& options) {
  ZelContainer parameters = TextParameter(kName, options.name);
  SetUnlessEmpty(kDescription, options.description, &parameters);
  SetUnlessEmpty(kPriority, options.priority, &parameters);
  SetRequester(agent, options.requester, &parameters);
  SetUnlessEmpty(kNotes, options.note, &parameters);
  SetUnlessEmpty("Language", options.language, &parameters);
  SetUnlessEmpty("UserEmail", options.email, &parameters);
  SetUnlessEmpty("UserDomain", options.domain, &parameters);
  SetUnlessEmpty("UserLogin", options.login, &parameters);
  return FinishChange(kCreateTask, Invoke(agent, kCreateTask, parameters), "The task is open.\n");
}

Result AddTaskNote(AgentClient& agent, const TaskChangeOptions& options) {
  ZelContainer parameters;
  parameters.SetInt32("ObjectId", options.id, kNoIndex);
  SetRequester(agent, options.requester, &parameters);
  SetUnlessEmpty(kNotes, options.note, &parameters);
  return FinishChange(kTaskAddNote, Invoke(agent, kTaskAddNote, parameters),
                      "The note is added.\n");
}

Result CloseTask(AgentClient& agent, const TaskChangeOptions& options) {
  ZelContainer parameters;
  parameters.SetInt32("ObjectId", options.id, kNoIndex);
  SetRequester(agent, options.requester, &parameters);
  return FinishChange(kCloseTask, Invoke(agent, kCloseTask, parameters), "The task is closed.\n");
}

Result ListTasks(AgentClient& agent, const TaskListOptions& options) {
  ZelContainer parameters;
  SetUnlessEmpty(kStatus, options.status, &parameters);
  SetUnlessEmpty(kPriority, options.priority, &parameters);
  SetUnlessEmpty(kRequestedBy, options.requester, &parameters);
  const ActionReply reply = Invoke(agent, kTaskGetList, parameters);
  RequireSuccess(kTaskGetList, reply);

  const std::vector<TaskRow> rows = ReadTaskRows(reply.container);
  if (!rows.empty()) {
    return {options.isLong ? FormatTasksInFull(rows) : FormatTasks(rows), reply.body, ""};
  }
  RequireTasksAreKept(agent);
  Result result{"", reply.body, ""};
  result.remark = parameters.CountKeys() == 0 ? "there are no tasks" : "there are no such tasks";
  return result;
}

Result CheckTasks(AgentClient& agent) {
  const ActionReply reply = RequireTasksAreKept(agent);
  return {"The master keeps tasks.\n", reply.body, ""};
}
