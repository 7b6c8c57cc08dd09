#include <cstdio>
#include <string>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/command_line.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/local_file.h"
#include "agent/zelctl/terminal.h"
#include "agent/zelctl/text_output.h"

namespace {

std::string FindPassword(const Options& options) {
  if (!options.passwordFile.empty()) return ReadPasswordFile(options.passwordFile);
  if (IsInputTerminal()) return PromptPassword("Password of " + options.agent.user + ": ");
  throw Failure(ExitStatus::kUsage,
                "no password: name a file that holds it with --password-file or "
                "ZEL_PASSWORD_FILE");
}

}  // namespace

void PrintError(const std::string& message) {
  std::fprintf(stderr, "zelctl: %s\n", EscapeForTerminal(message).c_str());
}

void PrintDiagnostic(const std::string& message) {
  std::fprintf(stderr, "%s\n", EscapeForTerminal(message, true).c_str());
}

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

CLI::App* AddVerb(CLI::App& app, const char* name, const char* help, Command* command,
                  Result (*run)(AgentClient&, const Options&)) {
  CLI::App* verb = app.add_subcommand(name, help);
  verb->callback([command, run] { *command = ForAgent(run); });
  return verb;
}
