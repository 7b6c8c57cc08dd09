#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/zelctl/user_commands.h"
#include "tests/agent/zelctl_agent.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kPrivacy[] = R"({"code":12,"container":{}})";

std::string Answer(const std::string& key, int value) {
  return R"({"code":0,"container":{")" + key + "\":" + std::to_string(value) + "}}";
}

class ZelctlUser : public ZelctlTest {
 protected:
  /// What is said when the person is asked and the agent answers so.
  Result Asked(const std::string& reply) {
    replies_["CoreUtilsCheckClientAccept"] = reply;
    return AskForConsent(client_, {});
  }

  Result AskedInDialog(const DialogOptions& options, int answer) {
    replies_["CoreUtilsAdvanceDialog"] = Answer("Result", answer);
    return AskInDialog(client_, options);
  }
};

TEST_F(ZelctlUser, LocksWithAMessageOrWithout) {
  LockDesktop(client_, {"back \"soon\"", {}, false});
  const Result result = LockDesktop(client_, {});
  EXPECT_EQ(result.json, kGood);
  EXPECT_EQ(result.text, "");
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsLockDesktop", "CoreUtilsLockDesktop"));
  EXPECT_THAT(bodies_, ElementsAre(R"({"LockMessage":"back \"soon\""})", R"({"LockMessage":""})"));
}

TEST_F(ZelctlUser, ChangesTheMessageAlsoToNone) {
  LockDesktop(client_, {"", "later", false});
  LockDesktop(client_, {"", "", false});
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsSetLockMessageText", "CoreUtilsSetLockMessageText"));
  EXPECT_THAT(bodies_, ElementsAre(R"({"LockMessage":"later"})", R"({"LockMessage":""})"));
}

TEST_F(ZelctlUser, RestoresTheLockAndUnlocks) {
  LockDesktop(client_, {"", {}, true});
  UnlockDesktop(client_);
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsRestoreDesktopLockState", "CoreUtilsUnlockDesktop"));
  EXPECT_THAT(bodies_, ElementsAre("{}", "{}"));
}

TEST_F(ZelctlUser, TellsThatTheDesktopWasNotLocked) {
  for (const char* action : {"CoreUtilsLockDesktop", "CoreUtilsSetLockMessageText",
                             "CoreUtilsRestoreDesktopLockState", "CoreUtilsUnlockDesktop"}) {
    replies_[action] = kFailed;
  }
  const Failure locked = FailureOf([&] { LockDesktop(client_, {}); });
  EXPECT_EQ(locked.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(locked.what(),
               "the desktop could not be locked, or is locked without the message; the agent's log "
               "says which (CoreUtilsLockDesktop: code 1: failure)");
  EXPECT_EQ(locked.Reply(), kFailed);
  EXPECT_THAT(FailureOf([&] {
                LockDesktop(client_, {"", "x", false});
              }).what(),
              StartsWith("the desktop is not locked, or the message could not be shown ("));
  EXPECT_THAT(FailureOf([&] {
                LockDesktop(client_, {"", {}, true});
              }).what(),
              StartsWith("the lock could not be restored"));
  EXPECT_THAT(FailureOf([&] { UnlockDesktop(client_); }).what(),
              StartsWith("the desktop is not locked, or could not be unlocked ("));
}

TEST_F(ZelctlUser, TellsACodeThatTheActionDoesNotHave) {
  replies_["CoreUtilsUnlockDesktop"] = kPrivacy;
  EXPECT_STREQ(FailureOf([&] { UnlockDesktop(client_); }).what(),
               "CoreUtilsUnlockDesktop: code 12: refused by the privacy check");
}

TEST_F(ZelctlUser, AsksInTheNameOfTheLoginOrAnotherOne) {
  replies_["CoreUtilsCheckClientAccept"] = Answer("Acknowledge", 1);
  AskForConsent(client_, {});
  const Result result = AskForConsent(client_, {"Ann of the help desk", false});
  EXPECT_EQ(result.text, "Accepted by the user.\n");
  EXPECT_EQ(result.problem, "");
  EXPECT_EQ(result.json, Answer("Acknowledge", 1));
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsCheckClientAccept", "CoreUtilsCheckClientAccept"));
  EXPECT_THAT(bodies_, ElementsAre(R"({"DisplayAdminName":"admin"})",
                                   R"({"DisplayAdminName":"Ann of the help desk"})"));
}

TEST_F(ZelctlUser, HasASentenceForEachAnswerButYes) {
  EXPECT_EQ(Asked(Answer("Acknowledge", 0)).problem,
            "refused by the user, or there is no way to ask the user");
  EXPECT_EQ(Asked(Answer("Acknowledge", 2)).problem,
            "another request is waiting for the user's answer");
  EXPECT_EQ(Asked(Answer("Acknowledge", 3)).problem, "nobody is logged on");
  EXPECT_EQ(Asked(Answer("Acknowledge", 4)).problem, "the user is away");
  EXPECT_EQ(Asked(kGood).problem, "the request was withdrawn, or no dialog can be shown there");
  EXPECT_EQ(Asked(kGood).text, "");
}

TEST_F(ZelctlUser, TakesNoUnknownAnswerForConsent) {
  EXPECT_EQ(FailureOf([&] { Asked(Answer("Acknowledge", 5)); }).Status(),
            ExitStatus::kAgentRefused);
  EXPECT_EQ(FailureOf([&] { Asked(kFailed); }).Status(), ExitStatus::kActionFailed);
  EXPECT_NE(Asked(R"({"code":0,"container":{"Acknowledge":"1"}})").problem, "");
}

TEST_F(ZelctlUser, WithdrawsARequest) {
  AskForConsent(client_, {"", true});
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsDestroyAckPopup"));
}

TEST_F(ZelctlUser, WithdrawsItsRequestWhenItIsInterrupted) {
  interruptedAction_ = "CoreUtilsCheckClientAccept";
  const Failure failure = FailureOf([&] { AskForConsent(client_, {}); });
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(failure.what(), "interrupted; the request was withdrawn");
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsCheckClientAccept", "CoreUtilsDestroyAckPopup"));
}

TEST_F(ZelctlUser, WithdrawsNothingWhenTheAgentIsLost) {
  replies_["CoreUtilsCheckClientAccept"] = "no JSON";
  EXPECT_EQ(FailureOf([&] { AskForConsent(client_, {}); }).Status(), ExitStatus::kAgentRefused);
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsCheckClientAccept"));
}

TEST_F(ZelctlUser, ShowsAMessageAndTakesItDown) {
  ShowMessage(client_, "The printer is back.");
  CloseMessage(client_);
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsShowDialog", "CoreUtilsCloseDialog"));
  EXPECT_THAT(bodies_, ElementsAre(R"({"Message":"The printer is back."})", "{}"));
}

TEST_F(ZelctlUser, SendsOfADialogOnlyWhatWasGiven) {
  AskedInDialog({"Reboot?", {}, {}, {}, {}, 0, false}, 1);
  AskedInDialog({"Reboot?", "Yes", "No", "Updates", "/i.png", 60, true}, 1);
  EXPECT_THAT(bodies_,
              ElementsAre(R"({"Message":"Reboot?"})",
                          R"({"Message":"Reboot?","ButtonOK":"Yes","ButtonCancel":"No",)"
                          R"("Title":"Updates","Path":"/i.png","TimeOut":60,"TopMost":1})"));
}

TEST_F(ZelctlUser, TellsWhichOfTwoButtonsWasChosen) {
  const DialogOptions two{"Reboot?", "Yes", "No", {}, {}, 0, false};
  EXPECT_EQ(AskedInDialog(two, 1).text, "The user chose \"Yes\".\n");
  EXPECT_EQ(AskedInDialog(two, 1).problem, "");
  EXPECT_EQ(AskedInDialog(two, 0).problem,
            "the user chose \"No\", or the dialog could not be shown");
  EXPECT_EQ(AskedInDialog({"?", "\x1b[1m", "No", {}, {}, 0, false}, 1).text,
            "The user chose \"\\x1b[1m\".\n");
}

TEST_F(ZelctlUser, TellsThatTheOnlyButtonWasUsedOrNoDialogShown) {
  const DialogOptions only{"Reboot?", "Yes", "", {}, {}, 0, false};
  EXPECT_EQ(AskedInDialog(only, 1).text, "The user closed the dialog.\n");
  EXPECT_EQ(AskedInDialog(only, 0).problem, "the dialog could not be shown");
  EXPECT_EQ(AskedInDialog({"?", {}, "No", {}, {}, 0, false}, 0).problem,
            "the dialog could not be shown");
}

TEST_F(ZelctlUser, TellsThatADialogEndedByItself) {
  EXPECT_EQ(AskedInDialog({"?", "Yes", "No", {}, {}, 30, false}, 2).problem,
            "nobody answered within 30 seconds");
  EXPECT_EQ(AskedInDialog({"?", "Yes", "No", {}, {}, 0, false}, 2).problem,
            "the dialog ended without an answer");
}

TEST_F(ZelctlUser, RefusesAReplyWithoutAKnownResult) {
  EXPECT_EQ(FailureOf([&] { AskInDialog(client_, {}); }).Status(), ExitStatus::kAgentRefused);
  EXPECT_EQ(FailureOf([&] { AskedInDialog({}, 3); }).Status(), ExitStatus::kAgentRefused);
}

TEST_F(ZelctlUser, TellsWhetherSomebodyIsLoggedOnAndAway) {
  std::string& reply = replies_["CoreUtilsIsUserLogged"];
  reply = R"({"code":0,"container":{"UserLogged":false}})";
  EXPECT_EQ(ShowSession(client_).text, "Nobody is logged on.\n");
  EXPECT_EQ(ShowSession(client_).json, reply);
  reply = R"({"code":0,"container":{"UserLogged":true,"ScreenSaving":false}})";
  EXPECT_EQ(ShowSession(client_).text, "A user is logged on.\n");
  reply = R"({"code":0,"container":{"UserLogged":true,"ScreenSaving":true}})";
  EXPECT_EQ(ShowSession(client_).text, "A user is logged on, and away.\n");
  reply = kGood;
  EXPECT_EQ(FailureOf([&] { ShowSession(client_); }).Status(), ExitStatus::kAgentRefused);
}

TEST_F(ZelctlUser, EndsTheSystemAsAsked) {
  EXPECT_EQ(EndSystem(client_, SystemEnd::kPowerOff, nullptr).json, kGood);
  EndSystem(client_, SystemEnd::kReboot, nullptr);
  EndSystem(client_, SystemEnd::kLogOff, nullptr);
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsExitOperatingSystem", "CoreUtilsExitOperatingSystem",
                                    "CoreUtilsExitOperatingSystem"));
  EXPECT_THAT(bodies_, ElementsAre(R"({"HowToExit":"POWEROFF"})", R"({"HowToExit":"REBOOT"})",
                                   R"({"HowToExit":""})"));
}

TEST_F(ZelctlUser, EndsNothingUnlessItIsConfirmed) {
  std::vector<std::string> questions;
  bool isSure = false;
  const Confirmation confirm = [&](const std::string& question) {
    questions.push_back(question);
    return isSure;
  };
  const Failure failure = FailureOf([&] { EndSystem(client_, SystemEnd::kPowerOff, confirm); });
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(failure.what(), "nothing was done");
  EXPECT_THAT(actions_, IsEmpty());
  isSure = true;
  EndSystem(client_, SystemEnd::kReboot, confirm);
  EndSystem(client_, SystemEnd::kLogOff, confirm);
  EXPECT_THAT(actions_, testing::SizeIs(2));
  const std::string host = server_.HostAndPort();
  EXPECT_THAT(questions,
              ElementsAre("Power off " + host + "? [y/N] ", "Restart " + host + "? [y/N] ",
                          "Log the user off at " + host + "? [y/N] "));
}

TEST_F(ZelctlUser, TellsThatTheSystemDoesNotEnd) {
  replies_["CoreUtilsExitOperatingSystem"] = kFailed;
  EXPECT_STREQ(FailureOf([&] { EndSystem(client_, SystemEnd::kPowerOff, nullptr); }).what(),
               "the machine is not powered off (CoreUtilsExitOperatingSystem: code 1: failure)");
  EXPECT_THAT(FailureOf([&] { EndSystem(client_, SystemEnd::kLogOff, nullptr); }).what(),
              StartsWith("nobody is logged off ("));
}

TEST_F(ZelctlUser, StartsAProgramAsTheUserByOneCommandLine) {
  RunAsUser(client_, {"/opt/a b/tool", "--now", "it's \"here\"", ""});
  RunAsUser(client_, {R"(C:\tools dir\)"});
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsShellExecuteAsLoggedUser",
                                    "CoreUtilsShellExecuteAsLoggedUser"));
  EXPECT_THAT(bodies_,
              ElementsAre(R"({"Command":"\"/opt/a b/tool\" --now \"it's \\\"here\\\"\" \"\""})",
                          R"({"Command":"\"C:\\tools dir\\\""})"));
}

TEST_F(ZelctlUser, StartsNoProgramThatCannotBeNamed) {
  EXPECT_EQ(FailureOf([&] { RunAsUser(client_, {}); }).Status(), ExitStatus::kUsage);
  EXPECT_EQ(FailureOf([&] { RunAsUser(client_, {"", "x"}); }).Status(), ExitStatus::kUsage);
  EXPECT_THAT(FailureOf([&] { RunAsUser(client_, {"a\"b"}); }).what(),
              HasSubstr("holds a double quote"));
  EXPECT_THAT(actions_, IsEmpty());
}

}  // namespace
