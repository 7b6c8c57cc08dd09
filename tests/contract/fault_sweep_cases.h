#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/contract/module_test.h"

constexpr const char* kText = "a text that needs memory of its own";

/// Withdraws what another action waits for: the faults of that are in a test of its own.
constexpr const char* kWithdrawal = "CoreUtilsDestroyAckPopup";

/// A call with what the host answers when all goes well.
struct Case {
  const char* name;
  const char* action;
  ZelContainer params;
  std::function<void(FakeHost&)> script;
  /// What the container holds after success, where it holds anything.
  std::vector<std::string> resultKeys = {};
  /// What it holds after a failure, where it may hold anything then.
  std::vector<std::string> failureKeys = {};
  /// The code when nothing fails.
  ResultCode code = kSuccess;
  /// Whether it calls functions that answer failure when memory is lacking, instead of throwing,
  /// and goes on from there.
  bool bearsLackOfMemory = false;
  /// For actions that leave something behind in the process: brings about what the case starts
  /// from, and takes it back, each with a host of its own.
  std::function<void()> before = {};
  std::function<void()> after = {};
  /// For the same: takes what is left behind, and says what it was.
  std::function<std::string()> takeState = {};
  /// What must be left behind when the first, second, ... host call throws.
  std::vector<std::string> statesAfterThrow = {};
};

/// Cases of the actions for helpdesk tasks.
std::vector<Case> CasesOfTaskActions();
/// Cases of the actions that look at other machines.
std::vector<Case> CasesOfNetworkActions();
/// Cases of the actions for the logged-on user.
std::vector<Case> CasesOfUserActions();
/// Cases of actions that call the system itself: on Windows it answers, elsewhere the fake host.
std::vector<Case> CasesOfSystemCalls();
/// The actions that no case can cover here, because the system itself answers all their calls.
std::vector<std::string> ActionsOfTheSystemAlone();

/// The codes that docs/actions names for an action whose parameters are well formed.
std::vector<ResultCode> DocumentedCodes(const std::string& action);
