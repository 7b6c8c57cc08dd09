#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "agent/zelctl/command_line.h"
#include "agent/zelctl/process_commands.h"
#include "agent/zelctl/script_command.h"

namespace {

constexpr char kRunVerb[] = "run";
constexpr char kExecVerb[] = "exec-as-user";
constexpr int kMostRows = std::numeric_limits<int>::max();

void AddRunCommand(CLI::App& app, RunOptions* run, Command* command) {
  CLI::App* verb = AddVerb(
      app, kRunVerb,
      "Start a program on the agent's machine: run PROGRAM [-- ARGUMENT...]. Its end is not\n"
      "waited for; what it prints is lost.",
      command,
      [](AgentClient& agent, const Options& given) { return RunProgram(agent, given.run); });
  verb->add_option("PROGRAM", run->program, "A path on the agent's machine")->required();
  verb->add_flag("--user-session", run->inUserSession,
                 "In the session of the user who is logged on there");
}

void AddScriptCommand(CLI::App& app, ScriptOptions* script, Command* command) {
  CLI::App* verb = AddVerb(
      app, "script",
      "Run a script on the agent's machine and wait for its end. An error in it is told as\n"
      "FILE:LINE: MESSAGE.",
      command,
      [](AgentClient& agent, const Options& given) { return RunScript(agent, given.script); });
  CLI::Option* name = verb->add_option(
      "NAME", script->name,
      "A script below the module's data directory on the agent's machine, or a path from the root");
  verb->add_option("--local", script->localFile,
                   "A script on this machine instead: it is copied to the agent, run, and deleted\n"
                   "there, after an interruption too")
      ->excludes(name);
  verb->add_option("--param", script->parameters,
                   "A parameter of the script: key=text, or key:=json; as often as needed")
      ->allow_extra_args(false);
  verb->add_flag("--compile-only", script->compileOnly,
                 "Only look whether the script is well-formed");
}

void AddProcessListCommand(CLI::App& app, ProcessListOptions* processes, Command* command) {
  CLI::App* verb =
      AddVerb(app, "ps", "List the processes of the agent's machine; with --json all of them",
              command, [](AgentClient& agent, const Options& given) {
                return ListProcesses(agent, given.processes);
              });
  verb->add_option(
      "FILTER", processes->filter,
      "Part of the name, path or owner, or a pattern with * and ?, whatever the case;\n"
      "or an ID");
  verb->add_option("--sort", processes->order,
                   "cpu, memory and time with the largest first, name, id and owner ascending;\n"
                   "--reverse turns each around")
      ->check(CLI::IsMember({"cpu", "memory", "name", "id", "owner", "time"}))
      ->capture_default_str();
  verb->add_flag("-r,--reverse", processes->isReversed, "Sort the other way round");
  verb->add_option("--limit", processes->limit, "Show at most so many processes")
      ->check(CLI::Range(1, kMostRows));
  verb->add_flag("--tree", processes->asTree, "Show each process below its parent");
  verb->add_flag("--path", processes->withPaths, "Show the programs' paths instead of their names");
}

void AddKillCommand(CLI::App& app, std::vector<std::string>* ids, Command* command) {
  CLI::App* verb = AddVerb(
      app, "kill", "End processes of the agent's machine, at once and without asking them", command,
      [](AgentClient& agent, const Options& given) { return EndProcesses(agent, given.ids); });
  verb->add_option("ID", *ids, "Process IDs: decimal, 0x for hexadecimal, 0 for octal")->required();
}

/// The first argument that is neither an option of `app` nor an option's value.
std::string FindVerb(const CLI::App& app, const std::vector<std::string>& arguments) {
  for (size_t i = 0; i < arguments.size(); ++i) {
    if (!arguments[i].starts_with('-')) return arguments[i];
    const CLI::Option* option = app.get_option_no_throw(arguments[i]);
    if (option != nullptr && option->get_items_expected_max() > 0) ++i;
  }
  return {};
}

}  // namespace

void AddProgramVerbs(CLI::App& app, Options* options, Command* command) {
  AddRunCommand(app, &options->run, command);
  AddScriptCommand(app, &options->script, command);
  AddProcessListCommand(app, &options->processes, command);
  AddKillCommand(app, &options->ids, command);
}

std::vector<std::string> TakeProgramArguments(const CLI::App& app,
                                              std::vector<std::string>* arguments) {
  const auto mark = std::find(arguments->begin(), arguments->end(), "--");
  if (mark == arguments->end()) return {};
  const std::string verb = FindVerb(app, *arguments);
  if (verb != kRunVerb && verb != kExecVerb) return {};
  std::vector<std::string> taken(mark + 1, arguments->end());
  arguments->erase(mark, arguments->end());
  return taken;
}
