// What the actions for the logged-on user answer when the proxy dies at any of their steps: the
// module's handlers and the agent's libraries, at a proxy that a test ends.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "actions/user/connection_acknowledgement.h"
#include "actions/user/desktop_lock.h"
#include "actions/user/dialogs.h"
#include "actions/user/session_and_power.h"
#include "agent/libZelCore/agent_core.h"
#include "tests/agent/scripted_proxy.h"
#include "tests/agent/temporary_directory.h"
#include "tests/agent/test_pipe.h"

namespace {

using Death = ScriptedProxy::Death;

/// Half of what a proxy may take that does not answer: nobody waited for the dead one.
constexpr std::chrono::seconds kAtOnce{5};

/// The code and the keys of an action's answer: "0 Result=1".
std::string AnswerOf(ResultCode (*action)(ZelContainer*)) {
  ZelContainer params;
  for (const char* const key : {"ButtonOK", "ButtonCancel", "LockMessage", "Message", "Command"})
    params.SetString(key, key, kNoIndex);
  std::string answer = std::to_string(action(&params));
  for (const char* const key : {"Acknowledge", "Result"}) {
    int32_t number = 0;
    if (params.GetInt32(key, &number, kNoIndex))
      answer += " " + std::string(key) + "=" + std::to_string(number);
  }
  for (const char* const key : {"UserLogged", "ScreenSaving"}) {
    bool flag = false;
    if (params.GetBool(key, &flag, kNoIndex))
      answer += " " + std::string(key) + (flag ? "=yes" : "=no");
  }
  return answer;
}

/// Who sits there: somebody who says yes to everything, or somebody who has locked the screen.
enum class Person { kAgrees, kIsAway };

ScriptedProxy::Script ScriptOf(Person person) {
  if (person == Person::kIsAway)
    return ScriptedProxy::Says("absence", {{"idleMs", "0"}, {"screenLocked", "yes"}});
  return ScriptedProxy::Says("dialog-show", {{"button", std::to_string(SkinDialog::kFirstButton)}});
}

/// An action that talks to the proxy, and what it answers.
struct Deed {
  const char* name;
  ResultCode (*action)(ZelContainer*);
  /// At a proxy that lives, and at one that dies before its last reply is there.
  const char* answer;
  const char* answerWhenLost;
  /// What has been done before.
  ResultCode (*before)(ZelContainer*) = nullptr;
  Person person = Person::kAgrees;
};

// For the tests' names.
void PrintTo(const Deed& deed, std::ostream* out) {
  *out << deed.name;
}

/// An agent and the proxy that it knows.
class Place {
 public:
  explicit Place(const Deed& deed) : agent_(Configured()) {
    StartProxy(deed.person);
    if (!deed.before) return;
    EXPECT_EQ(AnswerOf(deed.before), "0");
  }

  ScriptedProxy& Proxy() { return *proxy_; }
  void StartProxy(Person person) {
    proxy_.reset();
    proxy_ = std::make_unique<ScriptedProxy>(pipe_.Name(), ScriptOf(person));
  }

 private:
  AgentOptions Configured() const {
    std::filesystem::create_directories(home_.Native() / "config");
    WriteFile(home_.Native() / "config" / "zelagent.ini",
              "[proxy]\npipe = " + pipe_.Name() + "\nstart = no\n");
    return {home_.Native(), uint16_t{0}, false};
  }

  const TestPipe pipe_;
  const TemporaryDirectory home_;
  const AgentCore agent_;
  std::unique_ptr<ScriptedProxy> proxy_;
};

// Whatever was done before, the proxy that is there now serves, and nothing is left on its screen.
void ExpectThatAllIsWell(Place& place) {
  place.StartProxy(Person::kAgrees);
  EXPECT_EQ(AnswerOf(CoreUtilsCheckClientAccept), "0 Acknowledge=1");
  EXPECT_EQ(AnswerOf(CoreUtilsAdvanceDialog), "0 Result=1");
  EXPECT_EQ(AnswerOf(CoreUtilsShowDialog), "0");
  EXPECT_EQ(AnswerOf(CoreUtilsCloseDialog), "0");
  EXPECT_EQ(AnswerOf(CoreUtilsRestoreDesktopLockState), "0");
  while (AnswerOf(CoreUtilsUnlockDesktop) == "0") {
  }
  EXPECT_EQ(AnswerOf(CoreUtilsLockDesktop), "0");
  EXPECT_TRUE(place.Proxy().HasLock());
  EXPECT_EQ(AnswerOf(CoreUtilsUnlockDesktop), "0");
  EXPECT_FALSE(place.Proxy().HasLock());
}

class ProxyDeath : public testing::TestWithParam<Deed> {
 protected:
  /// How many requests the action makes of a proxy that lives.
  static size_t CountRequests() {
    Place place(GetParam());
    const size_t before = place.Proxy().CountAll();
    EXPECT_EQ(AnswerOf(GetParam().action), GetParam().answer);
    const size_t count = place.Proxy().CountAll() - before;
    ExpectThatAllIsWell(place);
    return count;
  }

  static void ExpectAnswer(size_t request, Death death, const char* expected) {
    SCOPED_TRACE("request " + std::to_string(request) + ", death " +
                 std::to_string(static_cast<int>(death)));
    Place place(GetParam());
    const size_t last = place.Proxy().CountAll() + request;
    place.Proxy().DieAt(request, death);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(AnswerOf(GetParam().action), expected);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kAtOnce);
    EXPECT_EQ(place.Proxy().CountAll(), last) << "it was to die during the action";
    ExpectThatAllIsWell(place);
  }
};

TEST_P(ProxyDeath, AtAnyStepOfAnActionIsNoAnswerOfThePerson) {
  const size_t count = CountRequests();
  ASSERT_GT(count, 0u);
  for (size_t request = 1; request <= count; ++request) {
    for (const Death death : {Death::kBeforeReply, Death::kWithinReply})
      ExpectAnswer(request, death, GetParam().answerWhenLost);
    ExpectAnswer(request, Death::kAfterReply,
                 request < count ? GetParam().answerWhenLost : GetParam().answer);
  }
}

// What the actions' documents say.
INSTANTIATE_TEST_SUITE_P(
    During, ProxyDeath,
    testing::Values(
        Deed{"AskingForConsent", CoreUtilsCheckClientAccept, "0 Acknowledge=1", "0 Acknowledge=0"},
        Deed{"AskingTheUser", CoreUtilsAdvanceDialog, "0 Result=1", "0 Result=0"},
        Deed{"ShowingAMessage", CoreUtilsShowDialog, "0", "0"},
        Deed{"ReplacingAMessage", CoreUtilsShowDialog, "0", "0", CoreUtilsShowDialog},
        Deed{"ClosingAMessage", CoreUtilsCloseDialog, "0", "0", CoreUtilsShowDialog},
        Deed{"Locking", CoreUtilsLockDesktop, "0", "1"},
        Deed{"SettingTheLocksText", CoreUtilsSetLockMessageText, "0", "1", CoreUtilsLockDesktop},
        Deed{"RestoringTheLock", CoreUtilsRestoreDesktopLockState, "0", "1", CoreUtilsLockDesktop},
        Deed{"Unlocking", CoreUtilsUnlockDesktop, "0", "1", CoreUtilsLockDesktop},
        Deed{"AskingForPresence", CoreUtilsIsUserLogged, "0 UserLogged=yes ScreenSaving=yes",
             "0 UserLogged=yes ScreenSaving=no", nullptr, Person::kIsAway},
        Deed{"StartingAProgram", CoreUtilsShellExecuteAsLoggedUser, "0", "0"}),
    [](const testing::TestParamInfo<Deed>& deed) { return std::string(deed.param.name); });

}  // namespace
