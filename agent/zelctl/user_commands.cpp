#include "agent/zelctl/user_commands.h"

#include <string_view>

#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/command_line_text.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/interruption.h"
#include "agent/zelctl/result_code.h"
#include "agent/zelctl/text_output.h"
#include "libZel/string.h"

namespace {

// What CoreUtilsCheckClientAccept answers.
constexpr int32_t kRefused = 0;
constexpr int32_t kAccepted = 1;
constexpr int32_t kAnotherPending = 2;
constexpr int32_t kNobodyLogged = 3;
constexpr int32_t kUserAbsent = 4;

// What CoreUtilsAdvanceDialog answers.
constexpr int32_t kSecondButtonOrFailure = 0;
constexpr int32_t kFirstButton = 1;
constexpr int32_t kNoButton = 2;

/// `Finish`, with words for the code that says that it could not be done.
Result FinishWith(const char* action, const ActionReply& reply, const char* failureText) {
  if (reply.code != kFailureCode) return Finish(action, reply);
  throw Failure(ExitStatus::kActionFailed,
                std::string(failureText) + " (" + action + ": " + DescribeCode(reply.code) + ")",
                reply.body);
}

void SetText(const char* key, const std::optional<std::string>& text, ZelContainer* parameters) {
  if (text) parameters->SetString(key, ZelString(std::string_view(*text)), kNoIndex);
}

Result ConsentResult(const ActionReply& reply) {
  int32_t answer = 0;
  if (!reply.container.GetInt32("Acknowledge", &answer, kNoIndex)) {
    return {"", reply.body, "the request was withdrawn, or no dialog can be shown there"};
  }
  switch (answer) {
    case kRefused:
      return {"", reply.body, "refused by the user, or there is no way to ask the user"};
    case kAccepted:
      return {"Accepted by the user.\n", reply.body, ""};
    case kAnotherPending:
      return {"", reply.body, "another request is waiting for the user's answer"};
    case kNobodyLogged:
      return {"", reply.body, "nobody is logged on"};
    case kUserAbsent:
      return {"", reply.body, "the user is away"};
    default:
      throw UnknownAnswer(kCheckClientAccept, reply);
  }
}

ZelContainer DialogParameters(const DialogOptions& options) {
  ZelContainer parameters = TextParameter("Message", options.text);
  SetText("ButtonOK", options.okLabel, &parameters);
  SetText("ButtonCancel", options.cancelLabel, &parameters);
  SetText("Title", options.title, &parameters);
  SetText("Path", options.imagePath, &parameters);
  if (options.timeoutS > 0) parameters.SetInt32("TimeOut", options.timeoutS, kNoIndex);
  if (options.staysOnTop) parameters.SetInt32("TopMost", 1, kNoIndex);
  return parameters;
}

/// `label` as it is to be read.
std::string Chosen(const char* user, const std::string& label) {
  return std::string(user) + " chose \"" + label + '"';
}

Result DialogResult(const DialogOptions& options, const ActionReply& reply) {
  const std::string ok = options.okLabel.value_or("");
  const std::string cancel = options.cancelLabel.value_or("");
  const bool hasTwoButtons = !ok.empty() && !cancel.empty();
  switch (static_cast<int32_t>(RequireUnsigned(kAdvanceDialog, reply, "Result"))) {
    case kSecondButtonOrFailure:
      return {"", reply.body,
              (hasTwoButtons ? Chosen("the user", cancel) + ", or " : "") +
                  "the dialog could not be shown"};
    case kFirstButton:
      return {hasTwoButtons ? Chosen("The user", EscapeForTerminal(ok)) + ".\n"
                            : "The user closed the dialog.\n",
              reply.body, ""};
    case kNoButton:
      return {"", reply.body,
              options.timeoutS > 0
                  ? "nobody answered within " + std::to_string(options.timeoutS) + " seconds"
                  : "the dialog ended without an answer"};
    default:
      throw UnknownAnswer(kAdvanceDialog, reply);
  }
}

struct SystemEndWords {
  const char* howToExit;
  const char* question;
  const char* failure;
};

SystemEndWords WordsFor(SystemEnd end) {
  switch (end) {
    case SystemEnd::kPowerOff:
      return {"POWEROFF", "Power off ", "the machine is not powered off"};
    case SystemEnd::kReboot:
      return {"REBOOT", "Restart ", "the machine is not restarted"};
    default:
      return {"", "Log the user off at ", "nobody is logged off"};
  }
}

/// The machine's name or address, with the port.
std::string HostOf(const AgentAddress& address) {
  const size_t scheme = address.url.find("://");
  return scheme == std::string::npos ? address.url : address.url.substr(scheme + 3);
}

/// A program's name as the first part of a command line, where backslashes stand for themselves.
std::string ProgramText(const std::string& program) {
  if (program.empty()) throw Failure(ExitStatus::kUsage, "the program's name is empty");
  if (program.find('"') != std::string::npos) {
    throw Failure(ExitStatus::kUsage, "the program's name '" + program + "' holds a double quote");
  }
  const bool isPlain = program.find_first_of(" \t\n\v") == std::string::npos;
  return isPlain ? program : '"' + program + '"';
}

}  // namespace

Result LockDesktop(AgentClient& agent, const LockOptions& options) {
  if (options.restore) {
    return FinishWith(kRestoreDesktopLockState,
                      Invoke(agent, kRestoreDesktopLockState, ZelContainer()),
                      "the lock could not be restored; the agent's log says why");
  }
  if (options.change) {
    return FinishWith(
        kSetLockMessageText,
        Invoke(agent, kSetLockMessageText, TextParameter("LockMessage", *options.change)),
        "the desktop is not locked, or the message could not be shown");
  }
  return FinishWith(
      kLockDesktop, Invoke(agent, kLockDesktop, TextParameter("LockMessage", options.message)),
      "the desktop could not be locked, or is locked without the message; the agent's log says "
      "which");
}

Result UnlockDesktop(AgentClient& agent) {
  return FinishWith(kUnlockDesktop, Invoke(agent, kUnlockDesktop, ZelContainer()),
                    "the desktop is not locked, or could not be unlocked");
}

Result AskForConsent(AgentClient& agent, const AskOptions& options) {
  if (options.withdraw) {
    return Finish(kDestroyAckPopup, Invoke(agent, kDestroyAckPopup, ZelContainer()));
  }
  const Interruption interruption;
  const std::string name = options.name.empty() ? agent.Address().user : options.name;
  try {
    const ActionReply reply =
        Invoke(agent, kCheckClientAccept, TextParameter("DisplayAdminName", name));
    RequireSuccess(kCheckClientAccept, reply);
    return ConsentResult(reply);
  } catch (const Failure&) {
    if (!Interruption::IsRequested()) throw;
  }
  // A question that nobody waits for any more must not be left on the screen.
  Interruption::Reset();
  const ActionReply reply = Invoke(agent, kDestroyAckPopup, ZelContainer());
  RequireSuccess(kDestroyAckPopup, reply);
  throw Failure(ExitStatus::kActionFailed, "interrupted; the request was withdrawn", reply.body);
}

Result ShowMessage(AgentClient& agent, const std::string& text) {
  return Finish(kShowDialog, Invoke(agent, kShowDialog, TextParameter("Message", text)));
}

Result CloseMessage(AgentClient& agent) {
  return Finish(kCloseDialog, Invoke(agent, kCloseDialog, ZelContainer()));
}

Result AskInDialog(AgentClient& agent, const DialogOptions& options) {
  const ActionReply reply = Invoke(agent, kAdvanceDialog, DialogParameters(options));
  RequireSuccess(kAdvanceDialog, reply);
  return DialogResult(options, reply);
}

Result ShowSession(AgentClient& agent) {
  const ActionReply reply = Invoke(agent, kIsUserLogged, ZelContainer());
  RequireSuccess(kIsUserLogged, reply);
  bool isLogged = false;
  bool isAway = false;
  if (!reply.container.GetBool("UserLogged", &isLogged, kNoIndex)) {
    throw UnknownAnswer(kIsUserLogged, reply);
  }
  reply.container.GetBool("ScreenSaving", &isAway, kNoIndex);
  return {!isLogged ? "Nobody is logged on.\n"
          : isAway  ? "A user is logged on, and away.\n"
                    : "A user is logged on.\n",
          reply.body, ""};
}

Result EndSystem(AgentClient& agent, SystemEnd end, const Confirmation& confirm) {
  const SystemEndWords words = WordsFor(end);
  if (confirm && !confirm(words.question + HostOf(agent.Address()) + "? [y/N] ")) {
    throw Failure(ExitStatus::kActionFailed, "nothing was done");
  }
  const ActionReply reply =
      Invoke(agent, kExitOperatingSystem, TextParameter("HowToExit", words.howToExit));
  return FinishWith(kExitOperatingSystem, reply, words.failure);
}

Result RunAsUser(AgentClient& agent, const std::vector<std::string>& command) {
  if (command.empty()) throw Failure(ExitStatus::kUsage, "no program is named");
  std::string line = ProgramText(command.front());
  if (command.size() > 1) line += ' ' + JoinArguments({command.begin() + 1, command.end()});
  return Finish(kShellExecuteAsLoggedUser,
                Invoke(agent, kShellExecuteAsLoggedUser, TextParameter("Command", line)));
}
