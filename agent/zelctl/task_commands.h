#pragma once

#include <cstdint>
#include <string>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"

// zelctl's verbs over helpdesk tasks, which the master of the agent's fleet keeps. Each throws
// `Failure`, which carries the deciding reply, unless it succeeded. What the master made of a
// request, the agent's log tells; the reply says yes or no.

/// What a task is opened with. The texts are taken as they are.
struct TaskAddOptions {
  std::string name;
  std::string description;
  std::string priority;
  std::string requester;  ///< for whom it is opened; empty: the login
  std::string note;
  std::string language;
  std::string email;
  std::string domain;
  std::string login;
};

/// Opens a task.
Result AddTask(AgentClient& agent, const TaskAddOptions& options);

struct TaskChangeOptions {
  int32_t id = 0;
  std::string requester;  ///< who adds the note or closes the task; empty: the login
  std::string note;
};

Result AddTaskNote(AgentClient& agent, const TaskChangeOptions& options);
Result CloseTask(AgentClient& agent, const TaskChangeOptions& options);

struct TaskListOptions {
  // An empty filter leaves all.
  std::string status;
  std::string priority;
  std::string requester;
  bool isLong = false;  ///< with description and notes
};

/// Lists tasks, the newest first. An empty list is looked into: it is a `remark` when the master
/// has nothing to list, and a `Failure` when the master could not be asked or keeps no tasks. A
/// list that failed on a master that does keep them cannot be told from an empty one.
Result ListTasks(AgentClient& agent, const TaskListOptions& options);

/// Whether the master keeps tasks; if not, that is a `Failure`.
Result CheckTasks(AgentClient& agent);
