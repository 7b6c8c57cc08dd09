#include "tests/contract/fault_sweep_cases.h"
#include "tests/contract/user_test.h"

namespace {

constexpr const char* kPipe = "a pipe whose name needs memory of its own";
constexpr const char* kText = "a text that needs memory of its own";

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

void LockTwice() {
  Lock();
  RunOnce("CoreUtilsLockDesktop", AnswerLockMessage);
}

void ShowMessage() {
  RunOnce("CoreUtilsShowDialog", AnswerShown);
}

void EndAll() {
  FakeHost host;
  RegisterModule(host);
  EndUserInteraction(host);
}

Case LockCase(const char* name, const char* action, std::function<void(FakeHost&)> script,
              std::function<void()> before = {}) {
  return {.name = name,
          .action = action,
          .params = Texts({{"LockMessage", kText}}),
          .script = std::move(script),
          .resultKeys = {"LockMessage"},
          .before = std::move(before),
          .after = EndAll};
}

std::vector<Case> CasesOfLock() {
  return {
      LockCase("lock", "CoreUtilsLockDesktop",
               [](FakeHost& host) {
                 AnswerLock(host);
                 AnswerLockMessage(host);
               }),
      LockCase("lock once more", "CoreUtilsLockDesktop", AnswerLockMessage, Lock),
      LockCase("lock message", "CoreUtilsSetLockMessageText", AnswerLockMessage, Lock),
      LockCase(
          "unlock", "CoreUtilsUnlockDesktop",
          [](FakeHost& host) {
            AnswerPipe(host);
            host.Answer("ProxyDesktopLockManager::Unlock", 1);
          },
          Lock),
      LockCase(
          "restore the lock", "CoreUtilsRestoreDesktopLockState",
          [](FakeHost& host) {
            AnswerLock(host);
            AnswerText(host);
          },
          LockTwice),
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
       .resultKeys = {"Acknowledge"}},
      {.name = "show a message",
       .action = "CoreUtilsShowDialog",
       .params = Texts({{"Message", kText}}),
       .script = AnswerShown,
       .after = EndAll},
      {.name = "replace a message that cannot be closed",
       .action = "CoreUtilsShowDialog",
       .params = Texts({{"Message", kText}}),
       .script =
           [](FakeHost& host) {
             host.Answer("SkinDialog::Close", -1);
             AnswerShown(host);
           },
       .before = ShowMessage,
       .after = EndAll},
      {.name = "close a message that cannot be closed",
       .action = "CoreUtilsCloseDialog",
       .params = {},
       .script = [](FakeHost& host) { host.Answer("SkinDialog::Close", -1); },
       .before = ShowMessage,
       .after = EndAll},
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
