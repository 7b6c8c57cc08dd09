#include <cstdint>
#include <cstdio>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "agent/zelctl/command_line.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/terminal.h"
#include "agent/zelctl/text_output.h"
#include "agent/zelctl/user_commands.h"

namespace {

constexpr int32_t kLongestTimeoutS = std::numeric_limits<int32_t>::max();

void AddLockCommands(CLI::App& app, LockOptions* lock, Command* command) {
  CLI::App* verb = AddVerb(
      app, "lock",
      "Cover the screens of the user at the agent's machine. Locks add up: each takes an unlock.",
      command,
      [](AgentClient& agent, const Options& given) { return LockDesktop(agent, given.lock); });
  CLI::Option* message =
      verb->add_option("MESSAGE", lock->message, "What to show on the locked screen");
  CLI::Option* change =
      verb->add_option("--change", lock->change, "Show this on a screen that is locked already")
          ->excludes(message);
  verb->add_flag("--restore", lock->restore,
                 "Lock again, and show the message again, where the agent had locked")
      ->excludes(message)
      ->excludes(change);
  AddVerb(app, "unlock", "Take one lock back; with the last one the screen is free", command,
          [](AgentClient& agent, const Options&) { return UnlockDesktop(agent); });
}

void AddAskCommand(CLI::App& app, AskOptions* ask, Command* command) {
  CLI::App* verb = AddVerb(
      app, "ask",
      "Ask the user at the agent's machine for consent to a connection, and wait for the answer.\n"
      "Status 0: the user accepted. Ctrl-C withdraws the request.",
      command,
      [](AgentClient& agent, const Options& given) { return AskForConsent(agent, given.ask); });
  CLI::Option* name = verb->add_option("--name", ask->name,
                                       "Who asks, as the user is to read it, instead of the login");
  verb->add_flag("--withdraw", ask->withdraw, "Withdraw the request that waits for an answer")
      ->excludes(name);
}

void AddDialogCommands(CLI::App& app, DialogOptions* dialog, Command* command) {
  CLI::App* group =
      app.add_subcommand("dialog", "Show messages to the user at the agent's machine");
  group->require_subcommand(1);
  CLI::App* show = AddVerb(
      *group, "show", "Put a message without buttons on the screen, in place of the one before",
      command, [](AgentClient& agent, const Options& given) {
        return ShowMessage(agent, given.dialog.text);
      });
  show->add_option("TEXT", dialog->text, "The message")->required();
  AddVerb(*group, "close", "Take that message down", command,
          [](AgentClient& agent, const Options&) { return CloseMessage(agent); });

  CLI::App* ask = AddVerb(
      *group, "ask",
      "Show a message with one button or two and wait for its end. Status 0: the first button,\n"
      "or the only one.",
      command,
      [](AgentClient& agent, const Options& given) { return AskInDialog(agent, given.dialog); });
  ask->add_option("TEXT", dialog->text, "The message")->required();
  ask->add_option("--ok", dialog->okLabel, "The first button");
  ask->add_option("--cancel", dialog->cancelLabel, "The second button");
  ask->add_option("--title", dialog->title, "The window's title");
  ask->add_option("--image", dialog->imagePath, "An image on the agent's machine, beside the text");
  ask->add_option("--timeout", dialog->timeoutS, "End the dialog after so many seconds")
      ->check(CLI::Range(1, kLongestTimeoutS));
  ask->add_flag("--top", dialog->staysOnTop, "Keep the window above all others");
}

/// Puts a question on the terminal; "y" and "yes" are yes.
bool Confirm(const std::string& question) {
  std::fputs(EscapeForTerminal(question).c_str(), stderr);
  std::fflush(stderr);
  std::string answer;
  std::getline(std::cin, answer);
  if (answer.ends_with('\r')) answer.pop_back();
  return answer == "y" || answer == "Y" || answer == "yes";
}

template <SystemEnd kEnd>
Result ConfirmAndEnd(AgentClient& agent, const Options& given) {
  if (given.isConfirmed) return EndSystem(agent, kEnd, nullptr);
  if (IsInputTerminal()) return EndSystem(agent, kEnd, &Confirm);
  throw Failure(ExitStatus::kUsage,
                "there is no terminal to ask whether you are sure; --yes says so");
}

void AddPowerCommands(CLI::App& app, bool* isConfirmed, Command* command) {
  CLI::App* power = app.add_subcommand(
      "power",
      "Power off or restart the agent's machine, or log its user off. Programs there are not\n"
      "asked: what is not saved is lost.");
  power->require_subcommand(1);
  power->add_flag("--yes", *isConfirmed, "Do not ask whether you are sure");
  AddVerb(*power, "off", "Power the machine off", command, &ConfirmAndEnd<SystemEnd::kPowerOff>);
  AddVerb(*power, "reboot", "Restart the machine", command, &ConfirmAndEnd<SystemEnd::kReboot>);
  AddVerb(*power, "logoff", "Log the user off", command, &ConfirmAndEnd<SystemEnd::kLogOff>);
}

void AddExecCommand(CLI::App& app, std::vector<std::string>* program, Command* command) {
  CLI::App* verb = AddVerb(
      app, "exec-as-user",
      "Start a program with the rights of the user at the agent's machine:\n"
      "exec-as-user PROGRAM [ARGUMENT...] [-- ARGUMENT...]. Whether it started stands in the\n"
      "agent's log alone.",
      command, [](AgentClient& agent, const Options& given) {
        std::vector<std::string> line = given.program;
        line.insert(line.end(), given.run.arguments.begin(), given.run.arguments.end());
        return RunAsUser(agent, line);
      });
  verb->add_option("PROGRAM", *program, "The program and its arguments")->required();
}

}  // namespace

void AddUserVerbs(CLI::App& app, Options* options, Command* command) {
  AddLockCommands(app, &options->lock, command);
  AddAskCommand(app, &options->ask, command);
  AddDialogCommands(app, &options->dialog, command);
  AddVerb(app, "session", "Tell whether a user is logged on at the agent's machine, and away",
          command, [](AgentClient& agent, const Options&) { return ShowSession(agent); });
  AddPowerCommands(app, &options->isConfirmed, command);
  AddExecCommand(app, &options->program, command);
}
