#include "agent/libZel/proxy_waits.h"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/proxy_protocol/channel.h"
#include "libZel/desktop_lock.h"
#include "libZel/proxy_client.h"
#include "libZel/skin_dialog.h"
#include "libZel/user_session.h"
#include "tests/agent/scripted_proxy.h"
#include "tests/agent/test_pipe.h"

using Lock = ProxyDesktopLockManager;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

/// Less than any wait for a proxy.
constexpr seconds kSoon{8};
constexpr uint32_t kLongMs = 60000;

/// Lets the other tests ask proxies again.
class ProxyWaits : public testing::Test {
 protected:
  ~ProxyWaits() override { AllowProxyWaits(); }

  void Begin(std::function<bool()> ask) {
    threads_.emplace_back([ask = std::move(ask)] { EXPECT_FALSE(ask()); });
  }
  /// All that has begun ends soon when the waits do.
  void EndAll() {
    const auto start = steady_clock::now();
    EndProxyWaits();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
    EXPECT_LT(steady_clock::now() - start, kSoon);
  }

  const TestPipe pipe_;

 private:
  std::vector<std::thread> threads_;
};

bool Initialise(const std::string& pipe) {
  XmlProxyClient client;
  return client.Initialise(pipe, kLongMs, XmlProxyClient::kUserSession);
}

bool MakeDialog(const std::string& pipe) {
  bool error = false;
  const SkinDialog dialog(nullptr, "Agreed?", "Yes", "No", "Close", SkinDialog::BUTTON_YES_NO, pipe,
                          error, "");
  return !error;
}

}  // namespace

TEST_F(ProxyWaits, EndForAllWhoAskAProxyThatHangs) {
  ScriptedProxy proxy(pipe_.Name());
  ASSERT_TRUE(Lock::Lock(pipe_.Name()));
  ASSERT_EQ(proxy.Count("session"), 1u);
  proxy.Hang();

  // One asks over the connection that is there, the others queue behind it.
  for (int i = 0; i < 8; ++i) Begin([this] { return Lock::SetMessage(pipe_.Name(), "T", "t"); });
  Begin([this] { return ProxyUtils::IsUserAbsent(pipe_.Name()); });
  Begin([this] { return Initialise(pipe_.Name()); });
  Begin([this] { return MakeDialog(pipe_.Name()); });
  Begin([this] {
    SysTray([this] { return ZelString(pipe_.Name()); }).ExecuteAsLoggedUser("program");
    return false;
  });
  ASSERT_TRUE(proxy.WaitUntil(
      [&] { return proxy.Count("session") == 5 && proxy.Count("lock-text") == 1; }));
  EndAll();
  EXPECT_EQ(proxy.Count("lock-text"), 1u);
  EXPECT_EQ(proxy.Count("run"), 0u);
}

TEST_F(ProxyWaits, EndForADialogThatIsBeingClosed) {
  ScriptedProxy proxy(pipe_.Name());
  bool error = false;
  SkinDialog dialog(nullptr, "Agreed?", "Yes", "No", "Close", SkinDialog::BUTTON_YES_NO,
                    pipe_.Name(), error, "");
  ASSERT_FALSE(error);
  proxy.Hang();
  Begin([&] {
    bool failed = false;
    dialog.Close(failed, true);
    return !failed;
  });
  ASSERT_TRUE(proxy.WaitUntil([&] { return proxy.Count("session") == 2; }));
  EndAll();
}

// More than its queue takes: some connect and wait for an answer, the others wait to connect.
TEST_F(ProxyWaits, EndWhereNobodyTakesConnections) {
  const auto stop = std::make_shared<proxy_protocol::StopSignal>();
  const auto listener = proxy_protocol::Listen(pipe_.Name(), stop);
  for (int i = 0; i < 80; ++i) Begin([this] { return Initialise(pipe_.Name()); });
  EndAll();
}

TEST_F(ProxyWaits, AreNotBegunAfterTheirEnd) {
  const ScriptedProxy proxy(pipe_.Name());
  EndProxyWaits();
  EXPECT_FALSE(Lock::Lock(pipe_.Name()));
  EXPECT_FALSE(Initialise(pipe_.Name()));
  EXPECT_FALSE(MakeDialog(pipe_.Name()));
  EXPECT_EQ(proxy.Count("session"), 0u);

  AllowProxyWaits();
  EXPECT_TRUE(Lock::Lock(pipe_.Name()));
  EXPECT_TRUE(Initialise(pipe_.Name()));
  EXPECT_TRUE(Lock::Unlock(pipe_.Name()));
}

TEST_F(ProxyWaits, EndWithoutTheLock) {
  const ScriptedProxy proxy(pipe_.Name());
  ASSERT_TRUE(Lock::Lock(pipe_.Name()));
  EndProxyWaits();
  EXPECT_FALSE(Lock::SetMessage(pipe_.Name(), "Title", "Text"));
  EXPECT_TRUE(proxy.HasLock()) << "until the process ends";

  AllowProxyWaits();
  EXPECT_TRUE(Lock::SetMessage(pipe_.Name(), "Title", "Text"));
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 1; }));
  EXPECT_TRUE(proxy.HasLock());
  EXPECT_TRUE(Lock::Unlock(pipe_.Name()));
}
