#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/command_line.h"
#include "agent/zelctl/commands.h"
#include "agent/zelctl/completion.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/terminal.h"
#include "agent/zelctl/text_output.h"

namespace {

void AddGlobalOptions(CLI::App& app, Options* options) {
  app.add_option("--agent", options->agent.url, "The agent's URL")
      ->envname("ZEL_AGENT")
      ->capture_default_str();
  app.add_option("--user", options->agent.user, "The console user's login")->envname("ZEL_USER");
  app.add_option("--password-file", options->passwordFile,
                 "File whose first line is the password; without it the terminal is asked")
      ->envname("ZEL_PASSWORD_FILE");
  app.add_option("--ca", options->agent.caFile,
                 "PEM file of the certificate authorities to trust instead of the system's")
      ->envname("ZEL_CA");
  app.add_flag("--json", options->json, "Print the agent's reply exactly as it came");
}

void AddProtocolCommands(CLI::App& app, Options* options, Command* command) {
  CLI::App* health = app.add_subcommand("health", "Ask whether the agent serves");
  health->callback([command] {
    *command = [](Options& given) {
      given.agent.user.clear();
      AgentClient agent(given.agent);
      return ShowHealth(agent);
    };
  });

  CLI::App* actions = app.add_subcommand("actions", "List the registered actions");
  actions->add_option("PATTERN", options->pattern,
                      "Part of the name, or a pattern with * and ?; case does not matter");
  actions->callback([command] {
    *command = ForAgent(
        [](AgentClient& agent, const Options& given) { return ListActions(agent, given.pattern); });
  });

  CLI::App* call = app.add_subcommand("call", "Call an action");
  call->add_option("NAME", options->action, "The action's name")->required();
  call->add_option("PARAMETER", options->parameters,
                   "key=text, or key:=json for numbers, true and false, lists and containers");
  call->callback([command] {
    *command = ForAgent([](AgentClient& agent, const Options& given) {
      return CallAction(agent, given.action, given.parameters);
    });
  });
}

void AddAuditCommands(CLI::App& app, Options* options, Command* command) {
  CLI::App* audit = app.add_subcommand("audit", "Work with audit logs");
  audit->require_subcommand(1);
  CLI::App* verify = audit->add_subcommand(
      "verify", "Check the hash chain of an audit log on this machine; no agent is asked");
  verify->add_option("FILE", options->source, "The audit log")->required();
  verify->callback([command] {
    *command = [](Options& given) { return VerifyAudit(LocalPath(given.source)); };
  });
}

void AddCompletionCommand(CLI::App& app, Command* command) {
  CLI::App* completion = app.add_subcommand("completion", "Print what a shell completes zelctl by");
  completion->require_subcommand(1);
  completion->add_subcommand("bash", "For bash: source <(zelctl completion bash)")
      ->callback([&app, command] {
        *command = [&app](Options&) { return Result{BashCompletion(app), "", ""}; };
      });
}

/// The reply for machines must stay as it is, but not on a screen that it could act on.
void PrintResult(const std::string& text, const std::string& json, bool wantsJson) {
  std::string output = wantsJson ? json : text;
  if (wantsJson && !output.empty()) output += '\n';
  if (wantsJson && IsOutputTerminal()) output = EscapeForTerminal(output, true);
  std::fwrite(output.data(), 1, output.size(), stdout);
  if (std::fflush(stdout) == 0) return;
  throw Failure(ExitStatus::kActionFailed, "the output could not be written");
}

ExitStatus RunCommand(const Command& command, Options& options) {
  try {
    const Result result = command(options);
    PrintResult(result.text, result.json, options.json);
    if (!result.diagnostic.empty()) PrintDiagnostic(result.diagnostic);
    if (!result.problem.empty()) PrintError(result.problem);
    if (!result.remark.empty()) PrintError(result.remark);
    const bool isGood = result.diagnostic.empty() && result.problem.empty();
    return isGood ? ExitStatus::kSuccess : ExitStatus::kActionFailed;
  } catch (const Failure& failure) {
    PrintError(failure.what());
    if (options.json) PrintResult("", failure.Reply(), true);
    return failure.Status();
  }
}

ExitStatus Run(int argc, char** argv) {
  CLI::App app(
      "Commands an agent: its actions by name, and verbs for files, programs, the user there,\n"
      "helpdesk tasks and the network.",
      "zelctl");
  Options options;
  Command command;
  // A path that starts with "/" is no option, on Windows either.
  app.allow_windows_style_options(false);
  app.fallthrough();
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 the action returned 0; 1 it returned something else; 2 usage;\n"
      "3 the agent could not be reached or refused the credentials.");
  AddGlobalOptions(app, &options);
  AddProtocolCommands(app, &options, &command);
  AddFileVerbs(app, &options, &command);
  AddProgramVerbs(app, &options, &command);
  AddTransferVerbs(app, &options, &command);
  AddUserVerbs(app, &options, &command);
  AddTaskVerbs(app, &options, &command);
  AddNetworkVerbs(app, &options, &command);
  AddAuditCommands(app, &options, &command);
  AddCompletionCommand(app, &command);

  std::vector<std::string> arguments = ProgramArguments(argc, argv);
  options.run.arguments = TakeProgramArguments(app, &arguments);
  // CLI11 takes them from the back.
  std::reverse(arguments.begin(), arguments.end());
  try {
    app.parse(std::move(arguments));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? ExitStatus::kSuccess : ExitStatus::kUsage;
  }
  return RunCommand(command, options);
}

}  // namespace

int main(int argc, char** argv) {
  PrepareStreams();
  try {
    return static_cast<int>(Run(argc, argv));
  } catch (const Failure& failure) {
    PrintError(failure.what());
    return static_cast<int>(failure.Status());
  } catch (const std::exception& error) {
    PrintError(error.what());
    return static_cast<int>(ExitStatus::kUsage);
  }
}
