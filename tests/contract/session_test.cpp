#include <string>

#include "tests/contract/user_test.h"

namespace {

using IsUserLogged = UserTest;
using ShellExecuteAsLoggedUser = UserTest;

constexpr const char* kExecutesNothing = "SysTray::ExecuteAsLoggedUser(\"\")";

TEST_F(IsUserLogged, ReportsAPersonWhoIsPresent) {
  host.Answer("IsUserLogged", 1);
  AnswerPipe();
  host.Answer("ProxyUtils::IsUserAbsent", 0);

  EXPECT_EQ(Run("CoreUtilsIsUserLogged", Texts({{"Other", "x"}})),
            (Outcome{kSuccess, "{UserLogged: Bool true, ScreenSaving: Bool false}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAsksWhoIsLogged, kAsksForPipe, "ProxyUtils::IsUserAbsent(\"pipe\")"));
}

TEST_F(IsUserLogged, ReportsAnAbsentPersonAsScreenSaving) {
  host.Answer("IsUserLogged", 1);
  AnswerPipe();
  host.Answer("ProxyUtils::IsUserAbsent", 1);
  EXPECT_EQ(Run("CoreUtilsIsUserLogged", {}),
            (Outcome{kSuccess, "{UserLogged: Bool true, ScreenSaving: Bool true}"}));
}

TEST_F(IsUserLogged, TellsNothingOfAScreenWhenNobodyIsThere) {
  host.Answer("IsUserLogged", 0);

  EXPECT_EQ(Run("CoreUtilsIsUserLogged", {}), (Outcome{kSuccess, "{UserLogged: Bool false}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre(kAsksWhoIsLogged));
}

TEST_F(IsUserLogged, ReplacesAnswersThatWereSentIn) {
  ZelContainer params = Texts({{"UserLogged", "mine"}});
  params.SetBool("ScreenSaving", true, kNoIndex);
  host.Answer("IsUserLogged", 0);
  EXPECT_EQ(Run("CoreUtilsIsUserLogged", params), (Outcome{kSuccess, "{UserLogged: Bool false}"}));
}

TEST_F(IsUserLogged, HasClearedTheContainerBeforeItAsks) {
  host.Answer("IsUserLogged", 1);
  AnswerPipe();
  host.Answer("ProxyUtils::IsUserAbsent", 1);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsIsUserLogged", Texts({{"Other", "x"}, {"More", "y"}})),
              ElementsAre(0, 1, 1));
}

TEST_F(IsUserLogged, AsksForThePipeNameEachTime) {
  for (const std::string pipe : {"first", "second"}) {
    host.Answer("IsUserLogged", 1);
    host.AnswerText("ZelAgentGetProxyPipeName", pipe);
    host.Answer("ProxyUtils::IsUserAbsent", 0);
    Run("CoreUtilsIsUserLogged", {});
    EXPECT_THAT(TakeCalls(), ElementsAre(kAsksWhoIsLogged, kAsksForPipe,
                                         "ProxyUtils::IsUserAbsent(\"" + pipe + "\")"));
  }
}

TEST_F(IsUserLogged, GoesOnWithoutAPipeName) {
  host.Answer("IsUserLogged", 1);
  host.AnswerText("ZelAgentGetProxyPipeName", "");
  host.Answer("ProxyUtils::IsUserAbsent", 0);

  EXPECT_EQ(Run("CoreUtilsIsUserLogged", {}),
            (Outcome{kSuccess, "{UserLogged: Bool true, ScreenSaving: Bool false}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAsksWhoIsLogged, kAsksForPipe, "ProxyUtils::IsUserAbsent(\"\")"));
}

TEST_F(ShellExecuteAsLoggedUser, HandsTheCommandToTheAgentsSysTray) {
  EXPECT_EQ(Run("CoreUtilsShellExecuteAsLoggedUser",
                Texts({{"Command", "notepad.exe C:\\a.txt"}, {"AgentPath", "x"}})),
            (Outcome{kSuccess, "{}"}));
  EXPECT_THAT(host.Transcript(),
              ElementsAre("ZelAgentGetSysTray()",
                          "SysTray::ExecuteAsLoggedUser(\"notepad.exe C:\\a.txt\")"));
}

TEST_F(ShellExecuteAsLoggedUser, HasClearedTheContainerBeforeItHandsTheCommandOver) {
  EXPECT_THAT(KeysAtEachCall("CoreUtilsShellExecuteAsLoggedUser", Texts({{"Command", "a.exe"}})),
              ElementsAre(0, 0));
}

TEST_F(ShellExecuteAsLoggedUser, PassesTheCommandOnAsItIs) {
  constexpr const char* kCommand = " \"C:\\a b.exe\" 100% %S & del *\r\n\xC3\xBC ";
  EXPECT_EQ(Run("CoreUtilsShellExecuteAsLoggedUser", Texts({{"Command", kCommand}})),
            (Outcome{kSuccess, "{}"}));
  EXPECT_EQ(
      host.Transcript().back(),
      "SysTray::ExecuteAsLoggedUser(\" \"C:\\a b.exe\" 100% %S & del *\\x0d\\x0a\xC3\xBC \")");
}

TEST_F(ShellExecuteAsLoggedUser, TakesAnAbsentCommandAsEmpty) {
  ZelContainer number;
  number.SetInt32("Command", 7, kNoIndex);
  for (const ZelContainer& params : {ZelContainer(), number, Texts({{"strCommand", "a.exe"}})}) {
    EXPECT_EQ(Run("CoreUtilsShellExecuteAsLoggedUser", params), (Outcome{kSuccess, "{}"}));
    EXPECT_THAT(TakeCalls(), ElementsAre("ZelAgentGetSysTray()", kExecutesNothing));
  }
}

TEST_F(ShellExecuteAsLoggedUser, HandsAnEmptyCommandOverAndLogsNothing) {
  EXPECT_EQ(Run("CoreUtilsShellExecuteAsLoggedUser", Texts({{"Command", ""}})),
            (Outcome{kSuccess, "{}"}));
  EXPECT_THAT(host.Transcript(), ElementsAre("ZelAgentGetSysTray()", kExecutesNothing));
}

}  // namespace
