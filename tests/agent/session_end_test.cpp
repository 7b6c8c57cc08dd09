#include <gtest/gtest.h>

#include <cstdlib>

#include "libZel/string.h"
#include "windows_api.h"

// What systemd-logind makes of the calls is a matter of the system tests: no test of this program
// may find a bus.

namespace {

constexpr DWORD kAccess = TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY;
constexpr DWORD kNoReason = 0xFFFFFFFF;

const ZelString kPrivilegeName("SeShutdownPrivilege");

/// No process of these tests knows a bus but one that is not there.
class SessionEnd : public testing::Test {
 protected:
  SessionEnd() {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/zel-no-bus", 1);
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), kAccess, &token_));
    EXPECT_TRUE(LookupPrivilegeValueW(nullptr, kPrivilegeName.GetTCHAR(), &shutdown_));
    Set(0);
  }

  BOOL Set(DWORD attributes) {
    const TOKEN_PRIVILEGES privileges{1, {{shutdown_, attributes}}};
    return AdjustTokenPrivileges(token_, 0, &privileges, sizeof privileges, nullptr, nullptr);
  }

  HANDLE token_ = nullptr;
  LUID shutdown_{};
};

TEST_F(SessionEnd, HasATokenForThisProcessAlone) {
  HANDLE token = nullptr;
  EXPECT_FALSE(OpenProcessToken(nullptr, kAccess, &token));
  EXPECT_FALSE(OpenProcessToken(&token, kAccess, &token));
  EXPECT_FALSE(OpenProcessToken(GetCurrentProcess(), kAccess, nullptr));
  EXPECT_EQ(token, nullptr);
  EXPECT_NE(token_, nullptr);
}

TEST_F(SessionEnd, KnowsOnePrivilege) {
  LUID other{5, 6};
  EXPECT_FALSE(LookupPrivilegeValueW(nullptr, ZelString("SeDebugPrivilege").GetTCHAR(), &other));
  EXPECT_FALSE(LookupPrivilegeValueW(nullptr, ZelString("").GetTCHAR(), &other));
  EXPECT_FALSE(LookupPrivilegeValueW(nullptr, nullptr, &other));
  EXPECT_FALSE(
      LookupPrivilegeValueW(ZelString("server").GetTCHAR(), kPrivilegeName.GetTCHAR(), &other));
  EXPECT_FALSE(LookupPrivilegeValueW(nullptr, kPrivilegeName.GetTCHAR(), nullptr));
  EXPECT_EQ(other.LowPart, 5u);
  EXPECT_EQ(other.HighPart, 6);
}

TEST_F(SessionEnd, EnablesThePrivilegeOfATokenThatItHandedOut) {
  const TOKEN_PRIVILEGES privileges{1, {{shutdown_, SE_PRIVILEGE_ENABLED}}};
  const DWORD size = sizeof privileges;
  EXPECT_TRUE(Set(SE_PRIVILEGE_ENABLED));
  EXPECT_FALSE(AdjustTokenPrivileges(nullptr, 0, &privileges, size, nullptr, nullptr));
  EXPECT_FALSE(AdjustTokenPrivileges(&shutdown_, 0, &privileges, size, nullptr, nullptr));
  EXPECT_FALSE(AdjustTokenPrivileges(token_, 1, &privileges, size, nullptr, nullptr));
  EXPECT_FALSE(AdjustTokenPrivileges(token_, 0, nullptr, size, nullptr, nullptr));
}

TEST_F(SessionEnd, TellsNothingOfThePrivilegesBefore) {
  const TOKEN_PRIVILEGES privileges{1, {{shutdown_, SE_PRIVILEGE_ENABLED}}};
  TOKEN_PRIVILEGES before{};
  DWORD length = 0;
  EXPECT_FALSE(AdjustTokenPrivileges(token_, 0, &privileges, sizeof before, &before, nullptr));
  EXPECT_FALSE(AdjustTokenPrivileges(token_, 0, &privileges, sizeof before, nullptr, &length));
}

TEST_F(SessionEnd, RefusesPrivilegesAndAttributesThatThereAreNot) {
  const TOKEN_PRIVILEGES other{1, {{{shutdown_.LowPart + 1, 0}, SE_PRIVILEGE_ENABLED}}};
  EXPECT_FALSE(AdjustTokenPrivileges(token_, 0, &other, sizeof other, nullptr, nullptr));
  const TOKEN_PRIVILEGES high{1, {{{shutdown_.LowPart, 1}, SE_PRIVILEGE_ENABLED}}};
  EXPECT_FALSE(AdjustTokenPrivileges(token_, 0, &high, sizeof high, nullptr, nullptr));
  EXPECT_FALSE(Set(SE_PRIVILEGE_ENABLED | 4));
  EXPECT_TRUE(Set(0));
}

TEST_F(SessionEnd, EndsNothingWithoutThePrivilege) {
  EXPECT_FALSE(ExitWindowsEx(EWX_POWEROFF | EWX_FORCE, kNoReason));
  EXPECT_TRUE(Set(SE_PRIVILEGE_ENABLED));
  EXPECT_TRUE(Set(0));
  EXPECT_FALSE(ExitWindowsEx(EWX_LOGOFF | EWX_FORCE, kNoReason));
}

TEST_F(SessionEnd, EndsNothingInAWayThatThereIsNot) {
  EXPECT_TRUE(Set(SE_PRIVILEGE_ENABLED));
  for (const UINT flags : {0u, 1u, 2u, 8u, EWX_POWEROFF | EWX_REBOOT | EWX_FORCE, 0x10u | EWX_FORCE,
                           0x80000000u | EWX_REBOOT | EWX_FORCE}) {
    EXPECT_FALSE(ExitWindowsEx(flags, kNoReason)) << flags;
  }
}

TEST_F(SessionEnd, FailsWithoutABus) {
  EXPECT_TRUE(Set(SE_PRIVILEGE_ENABLED));
  EXPECT_FALSE(ExitWindowsEx(EWX_POWEROFF | EWX_FORCE, kNoReason));
  EXPECT_FALSE(ExitWindowsEx(EWX_REBOOT | EWX_FORCE, kNoReason));
  EXPECT_FALSE(ExitWindowsEx(EWX_LOGOFF | EWX_FORCE, kNoReason));
}

}  // namespace
