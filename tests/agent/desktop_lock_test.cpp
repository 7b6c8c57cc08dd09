#include "libZel/desktop_lock.h"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/agent/scripted_proxy.h"
#include "tests/agent/test_pipe.h"

using Lock = ProxyDesktopLockManager;
using proxy_protocol::Message;

namespace {

/// The answer to another request, after which nothing that comes over the connection counts.
std::optional<Message> Astray(const Message& request) {
  Message reply = ReplyTo(request);
  reply.id += 1000;
  return reply;
}

}  // namespace

TEST(DesktopLock, StaysAsLongAsItIsWanted) {
  const TestPipe pipe;
  const ScriptedProxy proxy(pipe.Name());
  ASSERT_TRUE(Lock::Lock(pipe.Name()));
  EXPECT_TRUE(proxy.HasLock());
  EXPECT_EQ(proxy.Connections(), 1u) << "which holds the lock";

  ASSERT_TRUE(Lock::Unlock(pipe.Name()));
  EXPECT_FALSE(proxy.HasLock());
  EXPECT_EQ(proxy.Count("unlock"), 1u);
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 0; }));
}

TEST(DesktopLock, IsAskedForAgainOverTheSameConnection) {
  const TestPipe pipe;
  const ScriptedProxy proxy(pipe.Name());
  EXPECT_TRUE(Lock::Lock(pipe.Name()));
  EXPECT_TRUE(Lock::Lock(pipe.Name()));
  EXPECT_EQ(proxy.Count("session"), 1u);
  EXPECT_EQ(proxy.Count("lock"), 2u) << "the proxy may have unlocked by itself";
  EXPECT_TRUE(Lock::Unlock(pipe.Name()));
}

TEST(DesktopLock, IsTakenAnewFromTheNextProxy) {
  const TestPipe pipe;
  auto proxy = std::make_unique<ScriptedProxy>(pipe.Name());
  EXPECT_TRUE(Lock::Lock(pipe.Name()));
  proxy.reset();
  EXPECT_FALSE(Lock::Lock(pipe.Name())) << "there is none";
  proxy = std::make_unique<ScriptedProxy>(pipe.Name());
  EXPECT_TRUE(Lock::Lock(pipe.Name()));
  EXPECT_TRUE(proxy->HasLock());

  proxy.reset();
  proxy = std::make_unique<ScriptedProxy>(pipe.Name());
  EXPECT_TRUE(Lock::Lock(pipe.Name())) << "without a call in between";
  EXPECT_TRUE(proxy->HasLock());
  EXPECT_TRUE(Lock::Unlock(pipe.Name()));
}

TEST(DesktopLock, StaysWhenAnAnswerGoesAstray) {
  const TestPipe pipe;
  std::atomic<bool> isAstray = false;
  const ScriptedProxy proxy(pipe.Name(), [&](const Message& request) {
    return request.name == "lock-text" && isAstray.exchange(false) ? Astray(request) : std::nullopt;
  });
  ASSERT_TRUE(Lock::Lock(pipe.Name()));
  isAstray = true;
  EXPECT_TRUE(Lock::SetMessage(pipe.Name(), "Title", "Text"));
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 1; }));
  EXPECT_TRUE(proxy.HasLock()) << "the new connection holds it";
  EXPECT_EQ(proxy.Count("lock"), 2u);
  EXPECT_EQ(proxy.Count("session"), 2u);
  EXPECT_TRUE(Lock::Unlock(pipe.Name()));
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 0; }));
}

TEST(DesktopLock, StaysWhileTheProxyAnswersNothing) {
  const TestPipe pipe;
  std::atomic<bool> isAstray = false;
  const ScriptedProxy proxy(pipe.Name(), [&](const Message& request) {
    return isAstray ? Astray(request) : std::nullopt;
  });
  ASSERT_TRUE(Lock::Lock(pipe.Name()));
  isAstray = true;
  EXPECT_FALSE(Lock::SetMessage(pipe.Name(), "Title", "Text"));
  EXPECT_FALSE(Lock::Lock(pipe.Name()));
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 1; }));
  EXPECT_TRUE(proxy.HasLock()) << "the connection that locked is still there";

  isAstray = false;
  EXPECT_TRUE(Lock::SetMessage(pipe.Name(), "Title", "Text"));
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 1; }));
  EXPECT_TRUE(proxy.HasLock());

  isAstray = true;
  EXPECT_FALSE(Lock::Unlock(pipe.Name()));
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 0; }))
      << "the proxy unlocks by itself";
}

TEST(DesktopLock, IsForgottenWhenItCannotBeTakenAgain) {
  const TestPipe pipe;
  std::atomic<bool> isBroken = false;
  const ScriptedProxy proxy(pipe.Name(), [&](const Message& request) {
    if (!isBroken) return std::optional<Message>();
    if (request.name == "lock-text") return Astray(request);
    return ScriptedProxy::Refuses("lock")(request);
  });
  ASSERT_TRUE(Lock::Lock(pipe.Name()));
  isBroken = true;
  EXPECT_FALSE(Lock::SetMessage(pipe.Name(), "Title", "Text"));
  EXPECT_EQ(proxy.Count("lock-text"), 1u);
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 0; }));
}

TEST(DesktopLock, IsNotTakenFromTheNextProxyByAMessage) {
  const TestPipe pipe;
  auto proxy = std::make_unique<ScriptedProxy>(pipe.Name(), nullptr, 42);
  ASSERT_TRUE(Lock::Lock(pipe.Name()));
  proxy.reset();
  proxy = std::make_unique<ScriptedProxy>(pipe.Name(), nullptr, 43);
  EXPECT_FALSE(Lock::SetMessage(pipe.Name(), "Title", "Text"));
  EXPECT_EQ(proxy->Count("lock"), 0u);
  EXPECT_TRUE(proxy->WaitUntil([&] { return proxy->Connections() == 0; }));
}

TEST(DesktopLock, UnlocksWhatWasLockedBefore) {
  const TestPipe before, now;
  const ScriptedProxy left(before.Name()), active(now.Name());
  ASSERT_TRUE(Lock::Lock(before.Name()));
  EXPECT_TRUE(Lock::Unlock(now.Name())) << "its desktop is not locked";
  EXPECT_EQ(left.Count("unlock"), 1u);
  EXPECT_TRUE(left.WaitUntil([&] { return left.Connections() == 0; }));
  EXPECT_EQ(active.Count("unlock"), 1u);
}

TEST(DesktopLock, UnlocksWhatWasLockedBeforeWhenNobodyIsThereNow) {
  const TestPipe before;
  const ScriptedProxy left(before.Name());
  ASSERT_TRUE(Lock::Lock(before.Name()));
  EXPECT_FALSE(Lock::Unlock(""));
  EXPECT_FALSE(left.HasLock());
  EXPECT_TRUE(left.WaitUntil([&] { return left.Connections() == 0; }));
}

TEST(DesktopLock, KeepsNoConnectionWhenItIsRefused) {
  const TestPipe pipe;
  const ScriptedProxy proxy(pipe.Name(), ScriptedProxy::Refuses("lock"));
  EXPECT_FALSE(Lock::Lock(pipe.Name()));
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 0; }));
}

TEST(DesktopLock, ShowsItsMessage) {
  const TestPipe pipe;
  const ScriptedProxy proxy(pipe.Name());
  EXPECT_FALSE(Lock::SetMessage(pipe.Name(), "Title", "Text")) << "it is not locked";
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 0; }));

  EXPECT_TRUE(Lock::Lock(pipe.Name()));
  EXPECT_TRUE(Lock::SetMessage(pipe.Name(), "Title", "Text"));
  EXPECT_EQ(proxy.Last("lock-text").fields,
            (std::vector<proxy_protocol::Field>{{"title", "Title"}, {"text", "Text"}}));
  EXPECT_EQ(proxy.Connections(), 1u);
  EXPECT_TRUE(Lock::Unlock(pipe.Name()));
}

TEST(DesktopLock, FailsWithoutAProxy) {
  const TestPipe pipe;
  for (const std::string& name : {pipe.Name(), std::string()}) {
    EXPECT_FALSE(Lock::Lock(name));
    EXPECT_FALSE(Lock::SetMessage(name, "Title", "Text"));
    EXPECT_FALSE(Lock::Unlock(name));
  }
}

TEST(DesktopLock, IsForManyThreads) {
  const TestPipe pipe;
  const ScriptedProxy proxy(pipe.Name());
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 10; ++j) {
        EXPECT_TRUE(Lock::Lock(pipe.Name()));
        Lock::SetMessage(pipe.Name(), "Title", "Text");
        EXPECT_TRUE(Lock::Unlock(pipe.Name()));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(proxy.HasLock());
  EXPECT_TRUE(proxy.WaitUntil([&] { return proxy.Connections() == 0; }));
}
