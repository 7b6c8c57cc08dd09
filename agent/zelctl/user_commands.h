#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"

// zelctl's verbs over the person who is logged on at the agent's machine: desktop lock, consent,
// dialogs, session and power. Each throws `Failure`, which carries the deciding reply, when the
// action returned something else than 0. An answer of the person other than yes is the result's
// `problem`. Those that wait for the person wait without limit.

struct LockOptions {
  /// What to show on the locked screen; empty: nothing.
  std::string message;
  /// The message to show instead on a screen that is locked already.
  std::optional<std::string> change;
  /// Have the agent lock again what it had locked.
  bool restore = false;
};

/// Locks the desktop once more, or does what the options say instead.
Result LockDesktop(AgentClient& agent, const LockOptions& options);
/// Takes one lock back; the last one frees the screen.
Result UnlockDesktop(AgentClient& agent);

struct AskOptions {
  /// Who asks, as the person reads it; empty: the login.
  std::string name;
  /// Take back the question that is on the screen instead.
  bool withdraw = false;
};

/// Asks the person for consent and waits for the answer. An interruption takes the question back
/// before it is thrown as a `Failure`.
Result AskForConsent(AgentClient& agent, const AskOptions& options);

struct DialogOptions {
  std::string text;
  std::optional<std::string> okLabel;
  std::optional<std::string> cancelLabel;
  std::optional<std::string> title;
  /// A path on the agent's machine.
  std::optional<std::string> imagePath;
  /// 0: none.
  int32_t timeoutS = 0;
  bool staysOnTop = false;
};

/// Puts a message on the screen and leaves it there.
Result ShowMessage(AgentClient& agent, const std::string& text);
/// Takes the message down.
Result CloseMessage(AgentClient& agent);
/// Shows a dialog and waits for its end.
Result AskInDialog(AgentClient& agent, const DialogOptions& options);

/// Whether somebody is logged on, and away.
Result ShowSession(AgentClient& agent);

enum class SystemEnd { kPowerOff, kReboot, kLogOff };

/// Puts a question to who runs zelctl: whether the answer was yes.
using Confirmation = std::function<bool(const std::string& question)>;

/// Powers the agent's machine off, restarts it or logs the person off, without asking the programs
/// there. Asks for confirmation first; `confirm` is empty where there is no need for it.
Result EndSystem(AgentClient& agent, SystemEnd end, const Confirmation& confirm);

/// Starts a program with the rights of the person. Nothing tells whether it did. kUsage when the
/// program's name is missing or holds a double quote.
Result RunAsUser(AgentClient& agent, const std::vector<std::string>& command);
