#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/terminal.h"
#include "agent/zelctl/text_output.h"

namespace {

struct Options {
  AgentAddress agent{"http://127.0.0.1:7460", "", "", ""};
  std::string passwordFile;
  bool json = false;

  // Of the commands.
  std::string pattern;
  std::string action;
  std::vector<std::string> parameters;
  std::string source;
  std::string destination;
  bool recursive = false;
};

/// What the command line asked for.
using Command = std::function<Result(Options&)>;

void PrintError(const std::string& message) {
  std::fprintf(stderr, "zelctl: %s\n", EscapeForTerminal(message).c_str());
}

std::string ReadPasswordFile(const std::string& name) {
  std::ifstream file(LocalPath(name), std::ios::binary);
  std::string password;
  const bool isRead = file && std::getline(file, password);
  if (password.ends_with('\r')) password.pop_back();
  if (isRead && !password.empty()) return password;
  throw Failure(
      ExitStatus::kUsage,
      "the password file " + name + (file.is_open() ? " has no first line" : " cannot be opened"));
}

std::string FindPassword(const Options& options) {
  if (!options.passwordFile.empty()) return ReadPasswordFile(options.passwordFile);
  if (IsInputTerminal()) return PromptPassword("Password of " + options.agent.user + ": ");
  throw Failure(ExitStatus::kUsage,
                "no password: name a file that holds it with --password-file or "
                "ZEL_PASSWORD_FILE");
}

/// A command that is carried out by the agent, for the user that was named.
Command ForAgent(Result (*run)(AgentClient&, const Options&)) {
  return [run](Options& options) {
    if (options.agent.user.empty()) {
      throw Failure(ExitStatus::kUsage, "no user: name one with --user or ZEL_USER");
    }
    if (options.agent.user.find(':') != std::string::npos) {
      throw Failure(ExitStatus::kUsage, "the user's name must not contain ':'");
    }
    options.agent.password = FindPassword(options);
    AgentClient agent(options.agent);
    if (agent.SendsPasswordInClear()) {
      PrintError("warning: the password travels to " + options.agent.url + " unencrypted");
    }
    return run(agent, options);
  };
}

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

void AddPathCommands(CLI::App& app, Options* options, Command* command) {
  const auto add = [&](const char* name, const char* help,
                       Result (*run)(AgentClient&, const Options&)) {
    CLI::App* verb = app.add_subcommand(name, help);
    verb->callback([command, run] { *command = ForAgent(run); });
    return verb;
  };
  const auto addPath = [options](CLI::App* verb) {
    verb->add_option("PATH", options->source, "A path on the agent's machine")->required();
  };
  const auto addTwoPaths = [options](CLI::App* verb) {
    verb->add_option("SRC", options->source, "A path on the agent's machine")->required();
    verb->add_option("DST", options->destination, "The same, for the result")->required();
  };

  addTwoPaths(add("cp", "Copy a file; onto itself it gets a free name beside it, as in name(1).txt",
                  [](AgentClient& agent, const Options& given) {
                    return CopyFile(agent, given.source, given.destination);
                  }));
  addTwoPaths(add("mv", "Rename a file or directory", [](AgentClient& agent, const Options& given) {
    return Move(agent, given.source, given.destination);
  }));
  CLI::App* remove = add("rm", "Delete a file", [](AgentClient& agent, const Options& given) {
    return Remove(agent, given.source, given.recursive);
  });
  addPath(remove);
  remove->add_flag("-r,--recursive", options->recursive,
                   "Delete a directory too, with everything in it");
  addPath(
      add("stat", "Show a file's size (which the agent gives modulo 4 GiB)",
          [](AgentClient& agent, const Options& given) { return ShowFile(agent, given.source); }));
  addPath(add("mkdir", "Create a directory", [](AgentClient& agent, const Options& given) {
    return MakeDirectory(agent, given.source);
  }));
  addPath(add("rmdir", "Delete a directory WITH EVERYTHING IN IT",
              [](AgentClient& agent, const Options& given) {
                return RemoveDirectory(agent, given.source);
              }));
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
    if (result.problem.empty()) return ExitStatus::kSuccess;
    PrintError(result.problem);
    return ExitStatus::kActionFailed;
  } catch (const Failure& failure) {
    PrintError(failure.what());
    if (options.json) PrintResult("", failure.Reply(), true);
    return failure.Status();
  }
}

ExitStatus Run(int argc, char** argv) {
  CLI::App app("Commands an agent: its actions by name, and verbs for files over them.", "zelctl");
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
  AddPathCommands(app, &options, &command);
  AddAuditCommands(app, &options, &command);

  std::vector<std::string> arguments = ProgramArguments(argc, argv);
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
  PrepareOutput();
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
