// The system's own calls, but for the one that would end it.

#include <string>
#include <vector>

#include "tests/contract/module_test.h"
#include "windows_api.h"

namespace {

struct Exit {
  UINT flags;
  DWORD reason;
  bool isPrivileged;

  friend bool operator==(const Exit&, const Exit&) = default;
};

std::vector<Exit> exits;
bool isRefused = false;

/// Whether this process may shut the system down now.
bool IsPrivileged() {
  LUID shutdown{};
  HANDLE token = nullptr;
  EXPECT_TRUE(LookupPrivilegeValueW(nullptr, L"SeShutdownPrivilege", &shutdown));
  EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
  PRIVILEGE_SET asked{1, PRIVILEGE_SET_ALL_NECESSARY, {{shutdown, 0}}};
  BOOL isEnabled = FALSE;
  EXPECT_TRUE(PrivilegeCheck(token, &asked, &isEnabled));
  CloseHandle(token);
  return isEnabled;
}

void DisablePrivileges() {
  HANDLE token = nullptr;
  EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token));
  EXPECT_TRUE(AdjustTokenPrivileges(token, TRUE, nullptr, 0, nullptr, nullptr));
  CloseHandle(token);
}

BOOL WINAPI NoteExit(UINT flags, DWORD reason) {
  exits.push_back({flags, reason, IsPrivileged()});
  return !isRefused;
}

class ExitOperatingSystem : public ModuleTest {
 protected:
  ExitOperatingSystem() {
    exits.clear();
    isRefused = false;
    DisablePrivileges();
    EXPECT_FALSE(IsPrivileged());
  }

  Outcome End(const char* how) {
    return Run("CoreUtilsExitOperatingSystem", Texts({{"HowToExit", how}}));
  }
};

TEST_F(ExitOperatingSystem, IsTheSystemsOwnCallWithThePrivilege) {
  for (const auto& [how, flags] : {std::pair("POWEROFF", 12u), {"REBOOT", 6u}, {"", 4u}}) {
    DisablePrivileges();
    EXPECT_EQ(End(how), (Outcome{kSuccess, "{HowToExit: String \"" + std::string(how) + "\"}"}));
    EXPECT_THAT(exits, ElementsAre(Exit{flags, 0xFFFFFFFF, true})) << how;
    exits.clear();
  }
}

TEST_F(ExitOperatingSystem, FailsWhenTheSystemRefuses) {
  isRefused = true;
  EXPECT_EQ(End("REBOOT"), (Outcome{kFailure, "{HowToExit: String \"REBOOT\"}"}));
  EXPECT_EQ(exits.size(), 1u);
}

}  // namespace

// What calls of `ExitWindowsEx` go through: defined here, it is not taken from the system's
// library.
extern "C" {
extern decltype(&ExitWindowsEx) const __imp_ExitWindowsEx;
decltype(&ExitWindowsEx) const __imp_ExitWindowsEx = NoteExit;
}
