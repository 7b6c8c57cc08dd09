#include "agent/proxy_protocol/platform/windows/pipe_owner.h"

#include <windows.h>

#include <sddl.h>

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "agent/libZel/platform/windows/local_memory.h"
#include "agent/libZel/platform/windows/process_account.h"
#include "agent/proxy_protocol/channel.h"
#include "libZel/string.h"
#include "tests/agent/test_pipe.h"

using namespace proxy_protocol;

namespace {

constexpr std::chrono::seconds kPatience{10};

/// While it lives nobody may ask the system about this process.
class ProcessOfNoName {
 public:
  ProcessOfNoName() {
    DWORD size = 0;
    GetKernelObjectSecurity(GetCurrentProcess(), DACL_SECURITY_INFORMATION, nullptr, 0, &size);
    before_.resize(size);
    EXPECT_TRUE(GetKernelObjectSecurity(GetCurrentProcess(), DACL_SECURITY_INFORMATION,
                                        before_.data(), size, &size));
    PSECURITY_DESCRIPTOR nobody = nullptr;
    EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P", SDDL_REVISION_1,
                                                                     &nobody, nullptr));
    const LocalMemory<> freed(nobody);
    EXPECT_TRUE(SetKernelObjectSecurity(GetCurrentProcess(), DACL_SECURITY_INFORMATION, nobody));
  }
  ~ProcessOfNoName() {
    EXPECT_TRUE(
        SetKernelObjectSecurity(GetCurrentProcess(), DACL_SECURITY_INFORMATION, before_.data()));
  }
  ProcessOfNoName(const ProcessOfNoName&) = delete;
  ProcessOfNoName& operator=(const ProcessOfNoName&) = delete;

 private:
  std::vector<std::byte> before_;
};

}  // namespace

TEST(PipeOwner, ThatIsNotKnownHearsNothing) {
  const TestPipe pipe;
  const std::unique_ptr<Listener> listener = Listen(pipe.Name(), std::make_shared<StopSignal>());
  {
    const ProcessOfNoName unknown;
    const Connected refused = Connect(pipe.Name(), After(kPatience));
    EXPECT_EQ(refused.channel, nullptr);
    EXPECT_EQ(refused.result.status, Result::Status::kFailed);
    EXPECT_EQ(refused.result.reason, "it is not known which account listens");
  }
  EXPECT_EQ(listener->Accept().channel, nullptr) << "who called has gone";

  const Connected heard = Connect(pipe.Name(), After(kPatience));
  EXPECT_NE(heard.channel, nullptr) << heard.result.reason;
}

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
