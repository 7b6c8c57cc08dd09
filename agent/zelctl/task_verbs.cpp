#include <cstdint>
#include <limits>
#include <string>

#include "agent/zelctl/command_line.h"
#include "agent/zelctl/local_file.h"
#include "agent/zelctl/remote_text.h"
#include "agent/zelctl/task_commands.h"

namespace {

/// "-" stands for what standard input holds.
std::string TextOrInput(const std::string& argument) {
  return argument == "-" ? RequireUtf8(ReadStandardInput(), "standard input") : argument;
}

void AddAddCommand(CLI::App& tasks, TaskAddOptions* task, Command* command) {
  CLI::App* verb =
      AddVerb(tasks, "add", "Open a task", command, [](AgentClient& agent, const Options& given) {
        TaskAddOptions task = given.taskAdd;
        task.description = TextOrInput(task.description);
        return AddTask(agent, task);
      });
  verb->add_option("NAME", task->name, "What it is about, in a few words")->required();
  verb->add_option("--description", task->description, "The whole story; - reads standard input");
  verb->add_option("--priority", task->priority, "A word that the fleet uses, such as high");
  verb->add_option("--requested-by", task->requester, "For whom it is, instead of the login");
  verb->add_option("--note", task->note, "A first note");
  verb->add_option("--language", task->language, "The requester's language, such as en or pt-BR");
  verb->add_option("--email", task->email, "The requester's address");
  verb->add_option("--domain", task->domain, "The domain of the requester's account");
  verb->add_option("--login", task->login, "The login of the requester's account");
}

void AddChangeCommands(CLI::App& tasks, TaskChangeOptions* change, Command* command) {
  const auto addOptions = [change](CLI::App* verb) {
    verb->add_option("ID", change->id, "The task's number, as the list shows it")
        ->required()
        ->check(CLI::Range(int32_t{1}, std::numeric_limits<int32_t>::max()));
    verb->add_option("--requested-by", change->requester,
                     "The requester in whose name that is done, instead of the login");
  };
  CLI::App* note = AddVerb(tasks, "note", "Add a note to an open task", command,
                           [](AgentClient& agent, const Options& given) {
                             TaskChangeOptions change = given.taskChange;
                             change.note = TextOrInput(change.note);
                             return AddTaskNote(agent, change);
                           });
  addOptions(note);
  note->add_option("TEXT", change->note, "The note; - reads standard input")->required();
  addOptions(AddVerb(
      tasks, "close", "Close a task", command,
      [](AgentClient& agent, const Options& given) { return CloseTask(agent, given.taskChange); }));
}

void AddTaskListCommand(CLI::App& tasks, TaskListOptions* list, Command* command) {
  CLI::App* verb = AddVerb(
      tasks, "list",
      "List tasks, the newest first, as many as the master hands out at once; times are local.\n"
      "Control characters in texts are written out.",
      command,
      [](AgentClient& agent, const Options& given) { return ListTasks(agent, given.taskList); });
  verb->add_option("--status", list->status, "Only these: open or closed")
      ->check(CLI::IsMember({"open", "closed"}));
  verb->add_option("--priority", list->priority, "Only those of this priority");
  verb->add_option("--requested-by", list->requester, "Only those of this requester");
  verb->add_flag("--long", list->isLong, "Everything of each task, with description and notes");
}

}  // namespace

void AddTaskVerbs(CLI::App& app, Options* options, Command* command) {
  CLI::App* tasks =
      app.add_subcommand("tasks", "Work with helpdesk tasks, which the fleet's master keeps");
  tasks->require_subcommand(1);
  AddAddCommand(*tasks, &options->taskAdd, command);
  AddChangeCommands(*tasks, &options->taskChange, command);
  AddTaskListCommand(*tasks, &options->taskList, command);
  AddVerb(*tasks, "check", "Tell whether the master keeps tasks", command,
          [](AgentClient& agent, const Options&) { return CheckTasks(agent); });
}
