#include "agent/proxy_protocol/platform/windows/pipe_owner.h"

#include <windows.h>

#include <gmock/gmock.h>

#include <string>

#include "agent/libZel/platform/windows/process_account.h"
#include "libZel/string.h"
#include "tests/agent/test_pipe.h"

using namespace proxy_protocol;

TEST(PipeOwner, IsWhoMadeThePipe) {
  const TestPipe pipe;
  const std::wstring name = ZelString(pipe.Name()).GetTCHAR();
  const HANDLE listener = CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX,
                                           PIPE_TYPE_BYTE | PIPE_WAIT, 1, 4096, 4096, 0, nullptr);
  ASSERT_NE(listener, INVALID_HANDLE_VALUE);
  const HANDLE caller = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(caller, INVALID_HANDLE_VALUE);

  const PipeOwner owner = OwnerOf(caller);
  EXPECT_TRUE(owner.isOurs);
  DWORD session = 0;
  ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), &session));
  EXPECT_EQ(owner.session, session);
  EXPECT_EQ(WhyNotHeard(pipe.Name(), owner), "");
  CloseHandle(caller);
  CloseHandle(listener);
}

TEST(PipeOwner, IsNotKnownWithoutAPipe) {
  const PipeOwner owner = OwnerOf(INVALID_HANDLE_VALUE);
  EXPECT_FALSE(owner.isOurs);
  EXPECT_FALSE(owner.isSystem);
  EXPECT_TRUE(owner.account.empty());
  EXPECT_NE(WhyNotHeard("pipe", owner), "");
}

TEST(ProcessAccount, IsASid) {
  EXPECT_TRUE(ProcessAccount().Text().starts_with(L"S-1-5-"));
}

TEST(ProcessAccount, IsNoneWhereTheSystemDoesNotTell) {
  EXPECT_EQ(ProcessAccount(nullptr).Sid(), nullptr);
  EXPECT_EQ(ProcessAccount(nullptr).Text(), L"");
}
