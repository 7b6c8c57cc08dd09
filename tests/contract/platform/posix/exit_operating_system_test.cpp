#include <string>
#include <vector>

#include "tests/contract/module_test.h"

namespace {

constexpr const char* kAsksProcess = "GetCurrentProcess()";
constexpr const char* kOpensToken = "OpenProcessToken(11, 40, given)";
constexpr const char* kLooksUp = "LookupPrivilegeValueW(null, \"SeShutdownPrivilege\", given)";
constexpr const char* kAdjusts = "AdjustTokenPrivileges(4711, 0, {1, 19, 7, 2}, 16, null, null)";

constexpr int64_t kToken = 4711;
/// 19 in the low part, 7 in the high one.
constexpr int64_t kPrivilege = 0x0000000700000013;

std::string Exits(int flags) {
  return "ExitWindowsEx(" + std::to_string(flags) + ", ~0)";
}

class ExitOperatingSystem : public ModuleTest {
 protected:
  void AnswerToken() {
    host.Answer("GetCurrentProcess", 11);
    host.Answer("OpenProcessToken", kToken);
  }
  void AnswerPrivilege() {
    AnswerToken();
    host.Answer("LookupPrivilegeValueW", kPrivilege);
  }
  void AnswerEnabled() {
    AnswerPrivilege();
    host.Answer("AdjustTokenPrivileges", 1);
  }
  /// Expects the system to be ended with these flags.
  void ExpectExit(const ZelContainer& params, int flags) {
    AnswerEnabled();
    host.Answer("ExitWindowsEx", 1);
    host.ForgetTranscript();

    EXPECT_EQ(Run("CoreUtilsExitOperatingSystem", params), (Outcome{kSuccess, Describe(params)}));

    // The token is closed by none of the calls.
    EXPECT_THAT(host.Transcript(),
                ElementsAre(kAsksProcess, kOpensToken, kLooksUp, kAdjusts, Exits(flags)));
  }
};

TEST_F(ExitOperatingSystem, PowersOff) {
  ExpectExit(Texts({{"HowToExit", "POWEROFF"}, {"Other", "x"}}), 12);
}

TEST_F(ExitOperatingSystem, Reboots) {
  ExpectExit(Texts({{"HowToExit", "REBOOT"}}), 6);
}

TEST_F(ExitOperatingSystem, LogsOffForEveryOtherValue) {
  for (const char* value : {"", "LOGOFF", "poweroff", "PowerOff", "reboot", "Reboot", "POWEROFF ",
                            " REBOOT", "POWER OFF", "REBOOTPOWEROFF", "8", "2"}) {
    ExpectExit(Texts({{"HowToExit", value}}), 4);
  }
}

TEST_F(ExitOperatingSystem, LogsOffWithoutAValue) {
  ZelContainer number;
  number.SetInt32("HowToExit", 8, kNoIndex);
  ZelContainer list;
  list.SetString("HowToExit", "REBOOT", 0);
  for (const ZelContainer& params : {ZelContainer(), number, list}) ExpectExit(params, 4);
}

TEST_F(ExitOperatingSystem, FailsWithoutTheToken) {
  host.Answer("GetCurrentProcess", 11);
  host.Answer("OpenProcessToken", 0);

  EXPECT_EQ(Run("CoreUtilsExitOperatingSystem", Texts({{"HowToExit", "REBOOT"}})),
            (Outcome{kFailure, "{HowToExit: String \"REBOOT\"}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre(kAsksProcess, kOpensToken));
}

TEST_F(ExitOperatingSystem, FailsWithoutThePrivilege) {
  AnswerToken();
  host.Answer("LookupPrivilegeValueW", 0);

  EXPECT_EQ(Run("CoreUtilsExitOperatingSystem", {}), (Outcome{kFailure, "{}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre(kAsksProcess, kOpensToken, kLooksUp));
}

TEST_F(ExitOperatingSystem, FailsWhenThePrivilegeCannotBeEnabled) {
  AnswerPrivilege();
  host.Answer("AdjustTokenPrivileges", 0);

  EXPECT_EQ(Run("CoreUtilsExitOperatingSystem", {}), (Outcome{kFailure, "{}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre(kAsksProcess, kOpensToken, kLooksUp, kAdjusts));
}

TEST_F(ExitOperatingSystem, FailsWhenTheSystemRefuses) {
  AnswerEnabled();
  host.Answer("ExitWindowsEx", 0);

  EXPECT_EQ(Run("CoreUtilsExitOperatingSystem", Texts({{"HowToExit", "POWEROFF"}})),
            (Outcome{kFailure, "{HowToExit: String \"POWEROFF\"}"}));

  EXPECT_EQ(host.Transcript().back(), Exits(12));
}

TEST_F(ExitOperatingSystem, TakesEveryAnswerOtherThanZeroForSuccess) {
  AnswerPrivilege();
  host.Answer("AdjustTokenPrivileges", 42);
  host.Answer("ExitWindowsEx", -1);
  EXPECT_EQ(Run("CoreUtilsExitOperatingSystem", {}), (Outcome{kSuccess, "{}"}));
}

}  // namespace
