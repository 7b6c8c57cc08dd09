#include "agent/libZelCore/proxy_supervisor.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

using State = ProxyKeeper::State;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using namespace std::chrono_literals;

/// A machine with sessions and proxies, all of them made up. A pipe is named after the user.
struct Machine {
  struct Proxy {
    bool isRunning = true;
    bool wasAskedToEnd = false;
  };

  class Program : public SessionProgram {
   public:
    Program(Machine* machine, std::shared_ptr<Proxy> proxy)
        : machine_(machine), proxy_(std::move(proxy)) {}
    bool IsRunning() override {
      const std::lock_guard lock(machine_->mutex);
      return proxy_->isRunning;
    }
    void AskToEnd() override {
      const std::lock_guard lock(machine_->mutex);
      proxy_->wasAskedToEnd = true;
      proxy_->isRunning = false;
    }
    void WaitForEnd(std::chrono::milliseconds) override {}

   private:
    Machine* const machine_;
    const std::shared_ptr<Proxy> proxy_;
  };

  ProxySystem System() {
    return {[this]() -> std::optional<std::vector<UserSession>> {
              const std::lock_guard lock(mutex);
              if (!tellsSessions) return std::nullopt;
              return sessions;
            },
            [](const UserSession& session) { return session.userName; },
            [this](const UserSession& session) {
              const std::lock_guard lock(mutex);
              return listening.contains(session.userName);
            },
            [this](const UserSession& session) {
              const std::lock_guard lock(mutex);
              return !forbidden.contains(session.userName);
            },
            [this](const UserSession& session) { return Start(session); }};
  }

  StartedProgram Start(const UserSession& session) {
    const std::lock_guard lock(mutex);
    starts.push_back(session.id);
    if (!startError.empty()) return {nullptr, startError};
    if (listensAtOnce) listening.insert(session.userName);
    proxies.push_back(std::make_shared<Proxy>());
    return {std::make_unique<Program>(this, proxies.back()), {}};
  }

  /// The proxy that was started last ends and nobody listens any more.
  void LastEnds() {
    proxies.back()->isRunning = false;
    listening.clear();
  }

  std::mutex mutex;
  std::vector<UserSession> sessions;
  std::set<std::string> listening;
  std::set<std::string> forbidden;
  std::vector<std::string> starts;  ///< the sessions
  std::vector<std::shared_ptr<Proxy>> proxies;
  std::string startError;
  bool listensAtOnce = true;
  bool tellsSessions = true;
};

UserSession Desktop(const char* id, const char* user) {
  UserSession session;
  session.id = id;
  session.userName = user;
  session.isGraphical = true;
  return session;
}

class TheProxyKeeper : public testing::Test {
 protected:
  std::map<std::string, State> Look() { return keeper_.Look(now_); }
  std::map<std::string, State> LookAfter(std::chrono::seconds time) {
    now_ += time;
    return Look();
  }

  Machine machine_;
  ProxyKeeper keeper_{machine_.System()};
  ProxyKeeper::Clock::time_point now_ = ProxyKeeper::Clock::now();
};

TEST_F(TheProxyKeeper, StartsAProxyInEachGraphicalSession) {
  machine_.sessions = {Desktop("1", "maria"), Desktop("2", "jon")};
  UserSession terminal = Desktop("3", "eva");
  terminal.isGraphical = false;
  machine_.sessions.push_back(terminal);

  EXPECT_THAT(Look(),
              UnorderedElementsAre(Pair("maria", State::kStarting), Pair("jon", State::kStarting)));
  EXPECT_THAT(Look(), UnorderedElementsAre(Pair("maria", State::kListening),
                                           Pair("jon", State::kListening)));
  EXPECT_THAT(machine_.starts, ElementsAre("1", "2"));
}

TEST_F(TheProxyKeeper, DoesNothingWithoutSessions) {
  EXPECT_THAT(Look(), IsEmpty());
  EXPECT_THAT(machine_.starts, IsEmpty());
}

TEST_F(TheProxyKeeper, LeavesProxiesOfOthersAlone) {
  machine_.sessions = {Desktop("1", "maria")};
  machine_.listening = {"maria"};

  EXPECT_THAT(Look(), ElementsAre(Pair("maria", State::kListening)));
  EXPECT_THAT(machine_.starts, IsEmpty());
  keeper_.EndAll();
}

TEST_F(TheProxyKeeper, TakesTheirPlaceWhenTheyEnd) {
  machine_.sessions = {Desktop("1", "maria")};
  machine_.listening = {"maria"};
  Look();
  machine_.listening.clear();

  EXPECT_THAT(LookAfter(2s), ElementsAre(Pair("maria", State::kStarting)));
}

TEST_F(TheProxyKeeper, StartsOneWhereSessionsShareAPipe) {
  machine_.sessions = {Desktop("7", "maria"), Desktop("2", "maria")};
  Look();
  Look();

  EXPECT_THAT(machine_.starts, ElementsAre("7"));
}

TEST_F(TheProxyKeeper, StaysOutOfSessionsThatAreNotItsOwn) {
  machine_.sessions = {Desktop("1", "maria"), Desktop("2", "jon")};
  machine_.forbidden = {"maria"};

  EXPECT_THAT(Look(), ElementsAre(Pair("jon", State::kStarting)));
}

TEST_F(TheProxyKeeper, WaitsLongerEachTimeThatAProxyEnds) {
  machine_.sessions = {Desktop("1", "maria")};
  Look();
  for (const auto pause : {1s, 2s, 4s, 8s, 16s, 32s, 60s, 60s}) {
    machine_.LastEnds();
    const size_t starts = machine_.starts.size();
    EXPECT_THAT(Look(), ElementsAre(Pair("maria", State::kPaused)));
    EXPECT_THAT(LookAfter(pause - 1s), ElementsAre(Pair("maria", State::kPaused)));
    EXPECT_EQ(machine_.starts.size(), starts);
    EXPECT_THAT(LookAfter(1s), ElementsAre(Pair("maria", State::kStarting)));
    EXPECT_EQ(machine_.starts.size(), starts + 1);
  }
}

TEST_F(TheProxyKeeper, StartsAProxyAgainSoonThatRanForLong) {
  machine_.sessions = {Desktop("1", "maria")};
  Look();
  for (int i = 0; i < 5; ++i) {
    machine_.LastEnds();
    Look();
    LookAfter(60s);
  }
  now_ += 60s;
  machine_.LastEnds();
  Look();

  EXPECT_THAT(LookAfter(1s), ElementsAre(Pair("maria", State::kStarting)));
}

TEST_F(TheProxyKeeper, WaitsWhenAProxyCannotBeStarted) {
  machine_.sessions = {Desktop("1", "maria")};
  machine_.startError = "there is no such program";

  EXPECT_THAT(Look(), ElementsAre(Pair("maria", State::kPaused)));
  EXPECT_THAT(Look(), ElementsAre(Pair("maria", State::kPaused)));
  EXPECT_EQ(machine_.starts.size(), 1u);
  machine_.startError.clear();
  EXPECT_THAT(LookAfter(1s), ElementsAre(Pair("maria", State::kStarting)));
}

TEST_F(TheProxyKeeper, EndsAProxyThatNeverListens) {
  machine_.sessions = {Desktop("1", "maria")};
  machine_.listensAtOnce = false;
  Look();

  EXPECT_THAT(LookAfter(29s), ElementsAre(Pair("maria", State::kStarting)));
  EXPECT_THAT(LookAfter(1s), ElementsAre(Pair("maria", State::kPaused)));
  EXPECT_TRUE(machine_.proxies[0]->wasAskedToEnd);
}

TEST_F(TheProxyKeeper, KeepsAProxyWhoseSessionIsNotToldForAWhile) {
  machine_.sessions = {Desktop("1", "maria")};
  Look();
  Look();
  machine_.sessions.clear();
  EXPECT_THAT(LookAfter(2s), IsEmpty());
  machine_.sessions = {Desktop("1", "maria")};

  EXPECT_THAT(LookAfter(2s), ElementsAre(Pair("maria", State::kListening)));
  EXPECT_EQ(machine_.starts.size(), 1u);
  EXPECT_FALSE(machine_.proxies[0]->wasAskedToEnd);
}

TEST_F(TheProxyKeeper, KnowsItsPausesWhenTheSystemDoesNotTellForAWhile) {
  machine_.sessions = {Desktop("1", "maria")};
  machine_.startError = "there is no such program";
  Look();
  machine_.tellsSessions = false;
  EXPECT_THAT(Look(), IsEmpty());
  machine_.tellsSessions = true;

  EXPECT_THAT(Look(), ElementsAre(Pair("maria", State::kPaused)));
  EXPECT_EQ(machine_.starts.size(), 1u);
}

TEST_F(TheProxyKeeper, EndsWhatItStartedAndNothingElse) {
  machine_.sessions = {Desktop("1", "maria"), Desktop("2", "jon")};
  machine_.listening = {"jon"};
  Look();
  keeper_.EndAll();

  ASSERT_EQ(machine_.proxies.size(), 1u);
  EXPECT_TRUE(machine_.proxies[0]->wasAskedToEnd);
}

constexpr std::chrono::seconds kStartPatience{20};
/// Between two looks that nobody asks for: never, in a test.
constexpr std::chrono::hours kNever{1};

TEST(TheProxySupervisor, StartsAProxyWhenItIsNeeded) {
  Machine machine;
  ProxySupervisor supervisor(machine.System(), kNever);
  EXPECT_FALSE(supervisor.Ensure("maria", kStartPatience));
  {
    const std::lock_guard lock(machine.mutex);
    machine.sessions = {Desktop("1", "maria")};
  }

  EXPECT_TRUE(supervisor.Ensure("maria", kStartPatience));
  EXPECT_TRUE(supervisor.Ensure("maria", kStartPatience));
  EXPECT_THAT(machine.starts, ElementsAre("1"));
}

TEST(TheProxySupervisor, LooksByItself) {
  Machine machine;
  machine.sessions = {Desktop("1", "maria")};
  const ProxySupervisor supervisor(machine.System(), 1ms);

  const auto end = std::chrono::steady_clock::now() + kStartPatience;
  for (bool isStarted = false; !isStarted; std::this_thread::yield()) {
    const std::lock_guard lock(machine.mutex);
    isStarted = !machine.starts.empty();
    ASSERT_LT(std::chrono::steady_clock::now(), end);
  }
}

TEST(TheProxySupervisor, WaitsNoLongerThanItMayForAProxyThatDoesNotListen) {
  Machine machine;
  machine.sessions = {Desktop("1", "maria")};
  machine.listensAtOnce = false;
  ProxySupervisor supervisor(machine.System(), kNever);

  EXPECT_FALSE(supervisor.Ensure("maria", 200ms));
}

TEST(TheProxySupervisor, DoesNotWaitForAProxyThatCannotBeStarted) {
  Machine machine;
  machine.sessions = {Desktop("1", "maria")};
  machine.startError = "there is no such program";
  ProxySupervisor supervisor(machine.System(), kNever);

  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(supervisor.Ensure("maria", 1h));
  EXPECT_LT(std::chrono::steady_clock::now() - start, kStartPatience);
}

TEST(TheProxySupervisor, EndsItsProxiesWithItself) {
  Machine machine;
  machine.sessions = {Desktop("1", "maria")};
  {
    ProxySupervisor supervisor(machine.System(), kNever);
    ASSERT_TRUE(supervisor.Ensure("maria", kStartPatience));
  }
  EXPECT_TRUE(machine.proxies[0]->wasAskedToEnd);
}

}  // namespace
