#include <string>
#include <string_view>

#include "tests/contract/module_test.h"

namespace {

using namespace std::literals;

constexpr const char* kProgram = "C:\\Program Files\\x.exe";

std::string Launch(const std::string& commandLine, const std::string& pipe = "pipe",
                   const std::string& inUserSession = "false") {
  return "ExecRedirect(\"" + commandLine + "\", false, null, \"" + pipe +
         "\", \"\", \"\", 0, false, " + inUserSession + ", null, false, null)";
}

class RunProgram : public ModuleTest {
 protected:
  void AnswerAllowed() {
    AnswerVerdict(host, kWritable);
    host.AnswerText("ZelAgentGetProxyPipeName", "pipe");
  }
  /// Starts a program that may be started; tells the last call, which is the launch.
  std::string Launched(const ZelContainer& params) {
    AnswerAllowed();
    host.AnswerLaunch(1, false);
    EXPECT_EQ(Run("CoreUtilsRunProgram", params), (Outcome{kSuccess, "{}"}));
    return host.Transcript().back();
  }
};

TEST_F(RunProgram, AsksThePolicyAndThenStartsTheProgramWithTheseArguments) {
  ZelContainer params = Texts({{"Path", kProgram},
                               {"Parameters", "/s /q \"a b\""},
                               {"DACurrentConsoleUser", "maria"},
                               {"Other", "x"}});
  params.SetBool("ProgramContext", true, kNoIndex);
  AnswerAllowed();
  host.AnswerLaunch(1, false);

  EXPECT_EQ(Run("CoreUtilsRunProgram", params), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Trace \"ActionHandler_CoreUtilsRunProgram C:\\Program Files\\x.exe "
                          "/s /q \"a b\"\"",
                          PrivacyCheck(kProgram, "maria", "Write"), "ZelAgentGetProxyPipeName()",
                          Launch("\"C:\\Program Files\\x.exe\" /s /q \"a b\"", "pipe", "true")));
}

TEST_F(RunProgram, ClearsTheContainerOnceThePolicyHasAllowedTheLaunch) {
  AnswerAllowed();
  host.AnswerLaunch(1, false);

  // The trace, the policy, the pipe's name, the launch.
  EXPECT_THAT(KeysAtEachCall("CoreUtilsRunProgram", Texts({{"Path", kProgram}, {"Other", "x"}})),
              ElementsAre(2, 2, 0, 0));
}

TEST_F(RunProgram, TakesAbsentParametersAsEmptyAndTheAgentsOwnContext) {
  AnswerVerdict(host, kWritable);
  host.AnswerText("ZelAgentGetProxyPipeName", "");
  host.AnswerLaunch(1, false);

  EXPECT_EQ(Run("CoreUtilsRunProgram", {}), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre("Trace \"ActionHandler_CoreUtilsRunProgram  \"",
                                             PrivacyCheck("", "", "Write"),
                                             "ZelAgentGetProxyPipeName()", Launch("\"\" ", "")));
}

TEST_F(RunProgram, LeavesABlankAfterAPathWithoutParameters) {
  EXPECT_EQ(Launched(Texts({{"Path", kProgram}})), Launch("\"C:\\Program Files\\x.exe\" "));
}

TEST_F(RunProgram, QuotesAPathOnlyWithoutAQuoteAtEitherEnd) {
  const std::pair<const char*, const char*> cases[] = {
      {"a", "\"a\" p"},         {"\"a\"", "\"a\" p"},
      {"\"a", "\"a p"},         {"a\"", "a\" p"},
      {"a\"b", "\"a\"b\" p"},   {"\"", "\" p"},
      {"\"\"", "\"\" p"},       {"", "\"\" p"},
      {"'a b'", "\"'a b'\" p"}, {" \"a\" ", "\" \"a\" \" p"}};
  for (const auto& [path, commandLine] : cases) {
    EXPECT_EQ(Launched(Texts({{"Path", path}, {"Parameters", "p"}})), Launch(commandLine)) << path;
  }
}

TEST_F(RunProgram, AsksThePolicyForThePathAsItWasGiven) {
  Launched(Texts({{"Path", "\"C:/a b.exe\""}, {"Parameters", "C:/c"}}));
  EXPECT_EQ(host.Transcript()[1], PrivacyCheck("\"C:/a b.exe\"", "", "Write"));
}

TEST_F(RunProgram, AsksNoPolicyAboutUrls) {
  host.AnswerText("ZelAgentGetProxyPipeName", "pipe");
  host.AnswerLaunch(1, false);

  Run("CoreUtilsRunProgram", Texts({{"Path", "http://files.example/x.exe"}}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Trace \"ActionHandler_CoreUtilsRunProgram http://files.example/x.exe \"",
                          "ZelAgentGetProxyPipeName()", Launch("\"http://files.example/x.exe\" ")));
}

TEST_F(RunProgram, StartsNothingThatThePolicyRefusesAndLeavesTheContainer) {
  for (const int32_t verdict : {kForbidden, kReadable, 2}) {
    host.ForgetTranscript();
    AnswerVerdict(host, verdict);

    EXPECT_EQ(
        Run("CoreUtilsRunProgram", Texts({{"Path", "C:/a"}, {"Parameters", "p"}, {"Other", "x"}})),
        (Outcome{kAccessRefused,
                 "{Path: String \"C:/a\", Parameters: String \"p\", Other: String \"x\"}"}));

    EXPECT_THAT(host.Transcript(), ElementsAre("Trace \"ActionHandler_CoreUtilsRunProgram C:/a p\"",
                                               PrivacyCheck("C:/a", "", "Write")));
  }
}

TEST_F(RunProgram, StartsNothingWhenThePolicyCannotBeAsked) {
  host.AnswerInvocation(kInvokeUnknownAction);

  EXPECT_EQ(Run("CoreUtilsRunProgram", Texts({{"Path", "C:/a"}})),
            (Outcome{kAccessRefused, "{Path: String \"C:/a\"}"}));
}

TEST_F(RunProgram, FailsWhenNothingWasStartedOrTheFlagSaysSo) {
  const std::tuple<int, bool, ResultCode> cases[] = {
      {0, false, kFailure}, {0, true, kFailure},  {1, true, kFailure},  {7, true, kFailure},
      {1, false, kSuccess}, {7, false, kSuccess}, {-1, false, kSuccess}};
  for (const auto& [started, failed, code] : cases) {
    host.ForgetTranscript();
    AnswerAllowed();
    host.AnswerLaunch(started, failed);

    EXPECT_EQ(Run("CoreUtilsRunProgram", Texts({{"Path", "C:/a"}})), (Outcome{code, "{}"}))
        << started << " " << failed;

    // Nothing is logged after the launch.
    EXPECT_EQ(host.Transcript().back(), Launch("\"C:/a\" "));
  }
}

TEST_F(RunProgram, TakesNoContextThatIsNoFlag) {
  ZelContainer number = Texts({{"Path", "C:/a"}});
  number.SetInt32("ProgramContext", 1, kNoIndex);
  ZelContainer list = Texts({{"Path", "C:/a"}});
  list.SetBool("ProgramContext", true, 0);
  ZelContainer off = Texts({{"Path", "C:/a"}});
  off.SetBool("ProgramContext", false, kNoIndex);
  for (const ZelContainer& params :
       {number, list, off, Texts({{"Path", "C:/a"}, {"ProgramContext", "true"}})}) {
    EXPECT_EQ(Launched(params), Launch("\"C:/a\" "));
  }
}

TEST_F(RunProgram, TakesNoPathParametersOrConsoleUserThatAreListsOrNumbers) {
  for (const ZelContainer& params :
       ListsAndNumbers({"Path", "Parameters", "DACurrentConsoleUser"})) {
    host.ForgetTranscript();
    EXPECT_EQ(Launched(params), Launch("\"\" "));
    EXPECT_EQ(host.Transcript()[1], PrivacyCheck("", "", "Write"));
  }
}

TEST_F(RunProgram, TakesPercentSignsAsText) {
  EXPECT_EQ(Launched(Texts({{"Path", "C:/100%S %u.exe"}, {"Parameters", "%s %d %%"}})),
            Launch("\"C:/100%S %u.exe\" %s %d %%"));
  EXPECT_EQ(host.Transcript()[0],
            "Trace \"ActionHandler_CoreUtilsRunProgram C:/100%S %u.exe %s %d %%\"");
}

TEST_F(RunProgram, PassesNulCharactersAndLoneSurrogatesOn) {
  ZelContainer params;
  params.SetString("Path", ZelString("a\0b\xed\xa0\x80"sv), kNoIndex);
  params.SetString("Parameters", ZelString("\xed\xb3\xbf\0"sv), kNoIndex);

  EXPECT_EQ(Launched(params), Launch("\"a\\x00b\xed\xa0\x80\" \xed\xb3\xbf\\x00"));
}

}  // namespace
