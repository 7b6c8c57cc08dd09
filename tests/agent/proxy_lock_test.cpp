#include <gmock/gmock.h>

#include <string>
#include <thread>

#include "tests/agent/proxy_caller.h"
#include "tests/agent/scripted_desktop.h"
#include "tests/agent/test_proxy.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Pair;

namespace {

// Short, where a test waits for its end; it is not waited for elsewhere.
constexpr milliseconds kGrace{100};

}  // namespace

TEST(ProxyLock, CoversAndFreesTheScreen) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  EXPECT_EQ(caller.WhyNot("unlock"), "") << "nothing to do";
  EXPECT_EQ(caller.WhyNot("lock"), "");
  EXPECT_TRUE(desktop.IsLocked());
  EXPECT_EQ(caller.WhyNot("lock"), "");
  EXPECT_EQ(caller.WhyNot("unlock"), "");
  EXPECT_FALSE(desktop.IsLocked());
}

TEST(ProxyLock, ShowsTexts) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  EXPECT_EQ(caller.WhyNot("lock-text", {{"title", "T"}, {"text", "x"}}),
            "the screen is not locked");
  EXPECT_EQ(caller.WhyNot("lock"), "");
  const std::string odd = std::string("\0&_<b>", 6) + std::string(3000, 'x');
  EXPECT_EQ(caller.WhyNot("lock-text", {{"title", "T"}, {"text", odd}}), "");
  EXPECT_THAT(desktop.LockText(), Pair("T", odd));
  EXPECT_EQ(caller.WhyNot("lock-text"), "") << "empty ones";
  EXPECT_THAT(desktop.LockText(), Pair("", ""));
  EXPECT_EQ(caller.WhyNot("unlock"), "");
  EXPECT_EQ(caller.WhyNot("lock-text"), "the screen is not locked");
}

TEST(ProxyLock, EndsAWhileAfterItsLastHolder) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop, {}, kGrace);
  ProxyCaller first(proxy.Pipe()), second(proxy.Pipe());
  EXPECT_EQ(first.WhyNot("lock"), "");
  EXPECT_EQ(second.WhyNot("lock"), "");
  first.HangUp();
  std::this_thread::sleep_for(2 * kGrace);
  EXPECT_TRUE(desktop.IsLocked()) << "the second connection holds it";
  const auto start = steady_clock::now();
  second.HangUp();
  EXPECT_TRUE(desktop.WaitUntilLocked(false));
  EXPECT_GE(steady_clock::now() - start, kGrace);

  ProxyCaller third(proxy.Pipe());
  EXPECT_EQ(third.WhyNot("lock-text"), "the screen is not locked");
  EXPECT_EQ(third.WhyNot("lock"), "") << "and may be locked again";
  EXPECT_TRUE(desktop.IsLocked());
}

TEST(ProxyLock, StaysWhenAnotherConnectionTakesItOver) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop, {}, 3 * kGrace);
  ProxyCaller first(proxy.Pipe()), second(proxy.Pipe());
  EXPECT_EQ(first.WhyNot("lock"), "");
  first.HangUp();
  EXPECT_EQ(second.WhyNot("lock"), "");
  std::this_thread::sleep_for(6 * kGrace);
  EXPECT_TRUE(desktop.IsLocked());
  second.HangUp();
  EXPECT_TRUE(desktop.WaitUntilLocked(false));
}

TEST(ProxyLock, IsTakenFromAllHoldersByAnUnlock) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop, {}, kGrace);
  ProxyCaller first(proxy.Pipe()), second(proxy.Pipe()), other(proxy.Pipe());
  EXPECT_EQ(first.WhyNot("lock"), "");
  EXPECT_EQ(second.WhyNot("lock"), "");
  EXPECT_EQ(other.WhyNot("unlock"), "");
  EXPECT_FALSE(desktop.IsLocked());
  EXPECT_EQ(other.WhyNot("lock"), "");
  first.HangUp();
  second.HangUp();
  std::this_thread::sleep_for(2 * kGrace);
  EXPECT_TRUE(desktop.IsLocked()) << "they held it no more";
}

TEST(ProxyLock, CutsLongTexts) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  EXPECT_EQ(caller.WhyNot("lock"), "");
  const auto repeat = [](int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += "é";
    return text;
  };
  EXPECT_EQ(caller.WhyNot("lock-text", {{"title", repeat(500)}, {"text", repeat(4000)}}), "");
  EXPECT_THAT(desktop.LockText(), Pair(repeat(500), repeat(4000)));
  EXPECT_EQ(caller.WhyNot("lock-text", {{"title", repeat(501)}, {"text", repeat(90000)}}), "");
  EXPECT_THAT(desktop.LockText(), Pair(repeat(500) + "…", repeat(4000) + "…"));
}

TEST(ProxyLock, IsFreeWhenLockingFails) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop, {}, kGrace);
  ProxyCaller caller(proxy.Pipe());
  desktop.BreakLockHalfWay("another program holds the keyboard");
  EXPECT_EQ(caller.WhyNot("lock"), "another program holds the keyboard");
  EXPECT_EQ(caller.WhyNot("lock-text"), "the screen is not locked");
  EXPECT_FALSE(desktop.IsLocked()) << "what was covered is uncovered";

  desktop.BreakLockHalfWay("");
  ProxyCaller next(proxy.Pipe());
  EXPECT_EQ(next.WhyNot("lock"), "");
  EXPECT_EQ(desktop.CountLocks(), 1u);
}

TEST(ProxyLock, ThatFailedHalfWayIsTakenAwayOnceTheDesktopLetsIt) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop, {}, kGrace);
  ProxyCaller caller(proxy.Pipe());
  desktop.BreakLockHalfWay("one monitor is not covered");
  desktop.BreakUnlock("not now");
  EXPECT_EQ(caller.WhyNot("lock"), "one monitor is not covered");
  EXPECT_TRUE(desktop.IsLocked());
  EXPECT_EQ(caller.WhyNot("unlock"), "not now") << "may be asked for";
  desktop.BreakUnlock("");
  EXPECT_TRUE(desktop.WaitUntilLocked(false)) << "though nobody asks";
}

TEST(ProxyLock, IsTakenAwayOnceTheDesktopLetsIt) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop, {}, kGrace);
  ProxyCaller caller(proxy.Pipe()), other(proxy.Pipe());
  EXPECT_EQ(caller.WhyNot("lock"), "");
  desktop.Break("not now");
  EXPECT_EQ(other.WhyNot("unlock"), "not now");
  caller.HangUp();
  EXPECT_TRUE(desktop.IsLocked());
  desktop.Break("");
  EXPECT_TRUE(desktop.WaitUntilLocked(false));
}

TEST(ProxyLock, NeedsADisplay) {
  const TestProxy proxy;
  ProxyCaller caller(proxy.Pipe());
  EXPECT_EQ(caller.WhyNot("lock"), "there is no display");
  EXPECT_EQ(caller.WhyNot("lock-text"), "there is no display");
  EXPECT_EQ(caller.WhyNot("unlock"), "") << "the screen is free";
}

TEST(ProxyLock, GoesWithTheProxy) {
  ScriptedDesktop desktop;
  {
    const TestProxy proxy(desktop);
    ProxyCaller caller(proxy.Pipe());
    EXPECT_EQ(caller.WhyNot("lock"), "");
  }
  EXPECT_FALSE(desktop.IsLocked());
}
