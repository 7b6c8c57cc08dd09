// What only Windows has: accounts with domains, and identifiers that mean a process together with
// the three numbers above.

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "libZel/process.h"
#include "tests/agent/child_process.h"

namespace {

TEST(GetProcessListOnWindows, NamesTheAccountWithItsDomain) {
  wchar_t user[256];
  DWORD size = 256;
  ASSERT_TRUE(GetUserNameW(user, &size));
  std::vector<ProcessInfo> list;
  ProcessAccess().GetProcessList(list);
  const auto own = std::ranges::find(list, uint32_t{GetCurrentProcessId()}, &ProcessInfo::id);
  ASSERT_NE(own, list.end());
  EXPECT_TRUE(own->owner.EndsWith((ZelString("\\") + ZelString(user)).GetString(kEncodingUtf8)))
      << own->owner.Utf8();
  EXPECT_FALSE(own->owner.StartsWith("\\"));
}

TEST(GetProcessListOnWindows, GivesThePathAsItIsWritten) {
  std::vector<ProcessInfo> list;
  ProcessAccess().GetProcessList(list);
  const auto own = std::ranges::find(list, uint32_t{GetCurrentProcessId()}, &ProcessInfo::id);
  ASSERT_NE(own, list.end());
  wchar_t path[1024];
  ASSERT_NE(GetModuleFileNameW(nullptr, path, 1024), 0u);
  EXPECT_EQ(own->path, ZelString(path));
}

TEST(TerminateProcessByIDOnWindows, RefusesNumbersBesideIdentifiers) {
  ChildProcess child(ChildProcess::Task::kWait);
  for (uint32_t step = 1; step < 4; ++step) {
    EXPECT_EQ(ProcessAccess().TerminateProcessByID(GetCurrentProcessId() + step), 0);
    EXPECT_EQ(ProcessAccess().TerminateProcessByID(child.Id() + step), 0);
  }
  EXPECT_EQ(ProcessAccess().TerminateProcessByID(child.Id()), 1);
  EXPECT_TRUE(child.WaitForEnd());
}

TEST(TerminateProcessByIDOnWindows, RefusesThreads) {
  EXPECT_EQ(ProcessAccess().TerminateProcessByID(GetCurrentThreadId()), 0);
}

}  // namespace
