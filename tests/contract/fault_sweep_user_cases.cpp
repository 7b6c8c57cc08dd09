#include "tests/contract/fault_sweep_cases.h"
#include "tests/contract/user_test.h"

namespace {

using ::testing::Not;

constexpr const char* kPipe = "a pipe whose name needs memory of its own";
constexpr const char* kShown = " message";
constexpr size_t kCallsOfConsent = 13;

std::string Locked(int times, const std::string& text) {
  return " locked " + std::to_string(times) + " times: " + text;
}

/// A host for looking at what an action left behind.
class HostAfterwards : public FakeHost {
 public:
  HostAfterwards() {
    RegisterModule(*this);
    for (const char* function : {"ZelAgentGetProxyPipeName", "ZelAgentGetTranslation"}) {
      AnswerAlways(function, 0);
    }
    AnswerAlways("SkinDialog::Close", 0);
    for (const char* function : {"Lock", "SetMessage", "Unlock"}) {
      AnswerAlways(std::string("ProxyDesktopLockManager::") + function, 1);
    }
  }

  /// Runs the action; tells whether it calls the proxy to close a dialog.
  bool Closes(const char* action) {
    ForgetTranscript();
    EXPECT_EQ(RunAction(*this, action, {}).code, kSuccess);
    return !Transcript().empty();
  }
};

void EndAll() {
  FakeHost host;
  RegisterModule(host);
  EndUserInteraction(host);
}

/// The text that is restored with the lock; empty when there is no lock.
std::string TextOfLock(FakeHost& host) {
  host.ForgetTranscript();
  EXPECT_EQ(RunAction(host, "CoreUtilsRestoreDesktopLockState", {}).code, kSuccess);
  if (host.Transcript().empty()) return "";
  // SetMessage("", "", "text")
  const std::string& line = host.Transcript().back();
  const std::string start = "ProxyDesktopLockManager::SetMessage(\"\", \"\", \"";
  EXPECT_TRUE(line.starts_with(start)) << line;
  return line.substr(start.size(), line.size() - start.size() - 2);
}

/// Takes the locks and closes what is shown; says what there was, nothing for nothing.
std::string TakeState() {
  HostAfterwards host;
  const std::string text = TextOfLock(host);
  int locks = 0;
  while (RunAction(host, "CoreUtilsUnlockDesktop", {}).code == kSuccess) ++locks;
  std::string state = locks ? Locked(locks, text) : "";
  if (host.Closes("CoreUtilsCloseDialog")) state += kShown;
  if (host.Closes("CoreUtilsDestroyAckPopup")) state += " question";
  return state;
}

void AnswerPipe(FakeHost& host) {
  host.AnswerText("ZelAgentGetProxyPipeName", kPipe);
}

void AnswerLock(FakeHost& host) {
  AnswerPipe(host);
  host.Answer("ProxyDesktopLockManager::Lock", 1);
}

void AnswerText(FakeHost& host) {
  host.AnswerText("ZelAgentGetTranslation", "a title that needs memory of its own");
  host.Answer("ProxyDesktopLockManager::SetMessage", 1);
}

void AnswerLockMessage(FakeHost& host) {
  AnswerPipe(host);
  AnswerText(host);
}

void AnswerShown(FakeHost& host) {
  AnswerPipe(host);
  for (const char* step : {"SkinDialog", "SkinDialog::Show"}) host.Answer(step, 0);
  host.Answer("SkinDialog::IsInitialised", 1);
}

void AnswerConsent(FakeHost& host) {
  for (const char* text : {"May {AdminName} see your screen?", "a label that needs memory", ""}) {
    host.AnswerText("ZelAgentGetTranslation", text);
  }
  host.Answer("IsUserLogged", 1);
  host.Answer("ProxyUtils::IsUserAbsent", 0);
  AnswerShown(host);
  host.Answer("SkinDialog::GetButtonClickedID", 100);
}

void RunOnce(const char* action, void (*script)(FakeHost&)) {
  FakeHost host;
  RegisterModule(host);
  script(host);
  EXPECT_EQ(RunAction(host, action, {}).code, kSuccess);
}

void Lock() {
  RunOnce("CoreUtilsLockDesktop", [](FakeHost& host) {
    AnswerLock(host);
    AnswerLockMessage(host);
  });
}

/// Nothing is locked, and the text of a lock before is known.
void BeUnlocked() {
  Lock();
  EndAll();
}

void LockTwice() {
  Lock();
  RunOnce("CoreUtilsLockDesktop", AnswerLockMessage);
}

void ShowMessage() {
  RunOnce("CoreUtilsShowDialog", AnswerShown);
}

Case LockCase(const char* name, const char* action, std::function<void(FakeHost&)> script,
              std::function<void()> before, std::vector<std::string> statesAfterThrow) {
  return {.name = name,
          .action = action,
          .params = Texts({{"LockMessage", kText}}),
          .script = std::move(script),
          .resultKeys = {"LockMessage"},
          .before = std::move(before),
          .after = EndAll,
          .takeState = TakeState,
          .statesAfterThrow = std::move(statesAfterThrow)};
}

std::vector<Case> CasesOfLock() {
  return {
      LockCase("lock", "CoreUtilsLockDesktop",
               [](FakeHost& host) {
                 AnswerLock(host);
                 AnswerLockMessage(host);
               },
               BeUnlocked, {"", "", Locked(1, kText), Locked(1, kText), Locked(1, kText)}),
      LockCase("lock once more", "CoreUtilsLockDesktop", AnswerLockMessage, Lock,
               {Locked(2, kText), Locked(2, kText), Locked(2, kText)}),
      LockCase("lock message", "CoreUtilsSetLockMessageText", AnswerLockMessage, Lock,
               {Locked(1, kText), Locked(1, kText), Locked(1, kText)}),
      LockCase("unlock", "CoreUtilsUnlockDesktop",
               [](FakeHost& host) {
                 AnswerPipe(host);
                 host.Answer("ProxyDesktopLockManager::Unlock", 1);
               },
               Lock, {Locked(1, ""), Locked(1, "")}),
      LockCase(
          "restore the lock", "CoreUtilsRestoreDesktopLockState",
          [](FakeHost& host) {
            AnswerLock(host);
            AnswerText(host);
          },
          LockTwice, std::vector<std::string>(4, Locked(2, ""))),
  };
}

std::vector<Case> CasesOfDialogs() {
  ZelContainer question = Texts({{"DACurrentConsoleUser", "a console user that needs memory"},
                                 {"DisplayAdminName", "a name that needs memory"}});
  question.SetContainer("HttpProtocolRequestInfo",
                        Texts({{"HttpProtocolRequestAddress", "an address that needs memory"}}),
                        kNoIndex);
  ZelContainer advanced = Texts({{"Message", kText}, {"ButtonOK", kText}, {"Title", kText}});
  advanced.SetInt32("TimeOut", 60, kNoIndex);
  return {
      {.name = "ask for consent",
       .action = "CoreUtilsCheckClientAccept",
       .params = question,
       .script = AnswerConsent,
       .resultKeys = {"Acknowledge"},
       .takeState = TakeState,
       .statesAfterThrow = std::vector<std::string>(kCallsOfConsent)},
      {.name = "show a message",
       .action = "CoreUtilsShowDialog",
       .params = Texts({{"Message", kText}}),
       .script = AnswerShown,
       .after = EndAll,
       .takeState = TakeState,
       .statesAfterThrow = {"", "", kShown, kShown}},
      {.name = "replace a message that cannot be closed",
       .action = "CoreUtilsShowDialog",
       .params = Texts({{"Message", kText}}),
       .script =
           [](FakeHost& host) {
             host.Answer("SkinDialog::Close", -1);
             AnswerShown(host);
           },
       .before = ShowMessage,
       .after = EndAll,
       .takeState = TakeState,
       // It closes, logs, deletes, and makes the next one from the fourth call on.
       .statesAfterThrow = {kShown, kShown, "", "", "", kShown, kShown}},
      {.name = "close a message that cannot be closed",
       .action = "CoreUtilsCloseDialog",
       .params = {},
       .script = [](FakeHost& host) { host.Answer("SkinDialog::Close", -1); },
       .before = ShowMessage,
       .after = EndAll,
       .takeState = TakeState,
       .statesAfterThrow = {kShown, kShown, ""}},
      {.name = "advanced dialog",
       .action = "CoreUtilsAdvanceDialog",
       .params = advanced,
       .script =
           [](FakeHost& host) {
             AnswerShown(host);
             host.Answer("SkinDialog::GetButtonClickedID", 102);
           },
       .resultKeys = {"Result"}},
  };
}

/// Withdraws a question from within its wait while the host fails to close it.
Outcome WithdrawWithFault(FakeHost::Fault fault) {
  FakeHost host;
  RegisterModule(host);
  host.AnswerAlways("ZelAgentGetTranslation", 0);
  host.Answer("IsUserLogged", 1);
  host.Answer("ProxyUtils::IsUserAbsent", 0);
  AnswerShown(host);
  Outcome withdrawn{kSuccess, "nothing was withdrawn"};
  host.AnswerDialog("SkinDialog::GetButtonClickedID", 100, false, [&] {
    host.ForgetTranscript();
    host.FailCall(1, fault);
    withdrawn = RunAction(host, kWithdrawal, Texts({{"Other", kText}}));
    ASSERT_THAT(host.Transcript(), Not(IsEmpty()));
    EXPECT_TRUE(host.Transcript()[0].starts_with("SkinDialog::Close("));
    host.FailCall(~size_t{0}, fault);
  });

  // What the person said still holds.
  EXPECT_EQ(RunAction(host, "CoreUtilsCheckClientAccept", {}),
            (Outcome{kSuccess, "{Acknowledge: Int32 1}"}));
  EXPECT_THAT(host.LeftOverAnswers(), IsEmpty());
  return withdrawn;
}

// Only the midst of another action has something to withdraw, so this is no case like the others.
TEST(FaultSweep, AWithdrawalThatFailsLeavesTheQuestionToItsOwnEnd) {
  using Fault = FakeHost::Fault;
  const std::string untouched = std::string("{Other: String \"") + kText + "\"}";
  EXPECT_EQ(WithdrawWithFault(Fault::kThrowOnce), (Outcome{kFailure, "{}"}));
  EXPECT_EQ(WithdrawWithFault(Fault::kThrowFromHere), (Outcome{kFailure, "{}"}));
  EXPECT_EQ(WithdrawWithFault(Fault::kAnswerFailure), (Outcome{kSuccess, untouched}));
}

}  // namespace

std::vector<Case> CasesOfUserActions() {
  std::vector<Case> cases = {
      {.name = "logged-on user",
       .action = "CoreUtilsIsUserLogged",
       .params = Texts({{"Other", kText}}),
       .script =
           [](FakeHost& host) {
             host.Answer("IsUserLogged", 1);
             AnswerPipe(host);
             host.Answer("ProxyUtils::IsUserAbsent", 1);
           },
       .resultKeys = {"UserLogged"}},
      {.name = "run in the user's session",
       .action = "CoreUtilsShellExecuteAsLoggedUser",
       .params = Texts({{"Command", kText}}),
       .script = [](FakeHost&) {}},
  };
  for (auto more : {CasesOfLock(), CasesOfDialogs()}) {
    cases.insert(cases.end(), more.begin(), more.end());
  }
  return cases;
}
