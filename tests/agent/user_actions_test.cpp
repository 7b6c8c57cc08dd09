// The actions for the logged-on user from the module's handlers down to the proxy: the real
// libraries, a real proxy in this process, and a desktop on which a test plays the person.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "actions/user/connection_acknowledgement.h"
#include "actions/user/desktop_lock.h"
#include "actions/user/dialogs.h"
#include "actions/user/session_and_power.h"
#include "agent/libZelCore/agent_core.h"
#include "tests/agent/scripted_desktop.h"
#include "tests/agent/temporary_directory.h"
#include "tests/agent/test_proxy.h"

namespace {

/// Called by every request for consent before it looks whether another one is pending.
std::function<void()> whenAboutToAsk;

}  // namespace

/// Somebody is logged on at this machine: the proxy's person.
bool IsUserLogged() {
  if (whenAboutToAsk) whenAboutToAsk();
  return true;
}

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kLongWait{60};
constexpr uint32_t kOk = 0;
constexpr uint32_t kFailed = 1;

/// What a question was answered with; none for an empty container.
constexpr int kNoAnswer = -1;
constexpr int kRefused = 0;
constexpr int kAccepted = 1;
constexpr int kBusy = 2;
constexpr int kAbsent = 4;

int Ask(const std::string& adminName = "Anna Admin") {
  ZelContainer params;
  params.SetString("DisplayAdminName", adminName, kNoIndex);
  EXPECT_EQ(CoreUtilsCheckClientAccept(&params), kOk);
  int32_t answer = kNoAnswer;
  params.GetInt32("Acknowledge", &answer, kNoIndex);
  EXPECT_LE(params.CountKeys(), 1u);
  return answer;
}

void Withdraw() {
  ZelContainer params;
  EXPECT_EQ(CoreUtilsDestroyAckPopup(&params), kOk);
}

std::future<int> AskMeanwhile(const std::string& adminName = "Anna Admin") {
  return std::async(std::launch::async, Ask, adminName);
}

template <typename Value>
bool IsOver(std::future<Value>& future) {
  return future.wait_for(kLongWait) == std::future_status::ready;
}

uint32_t Call(ResultCode (*action)(ZelContainer*)) {
  ZelContainer params;
  return action(&params);
}

uint32_t CallWith(ResultCode (*action)(ZelContainer*), const char* key, const ZelString& text) {
  ZelContainer params;
  params.SetString(key, text, kNoIndex);
  return action(&params);
}

/// A proxy and an agent that knows where it listens.
class UserActions : public testing::Test {
 protected:
  UserActions() : proxy_(std::make_unique<TestProxy>(desktop)), agent_(Configured()) {}
  ~UserActions() override {
    Call(CoreUtilsCloseDialog);
    while (Call(CoreUtilsUnlockDesktop) == kOk) {
    }
  }

  void StopProxy() { proxy_.reset(); }

  ScriptedDesktop desktop;

 private:
  AgentOptions Configured() const {
    std::filesystem::create_directories(home_.Native() / "config");
    WriteFile(home_.Native() / "config" / "zelagent.ini",
              "[proxy]\npipe = " + proxy_->Pipe() + "\nstart = no\n");
    return {home_.Native(), uint16_t{0}, false};
  }

  const TemporaryDirectory home_;
  std::unique_ptr<TestProxy> proxy_;
  const AgentCore agent_;
};

using Consent = UserActions;
using Lock = UserActions;
using Dialogs = UserActions;

// ---- consent ----

TEST_F(Consent, IsGivenByTheFirstButton) {
  std::future<int> answer = AskMeanwhile();
  const uint32_t dialog = desktop.WaitForDialog();
  ASSERT_NE(dialog, 0u);
  const DialogContent content = desktop.Content(dialog).value();
  ASSERT_EQ(content.buttons.size(), 2u);
  EXPECT_EQ(content.buttons[0].id, SkinDialog::kFirstButton);
  EXPECT_EQ(content.buttons[1].id, SkinDialog::kSecondButton);
  EXPECT_EQ(content.closeButton, SkinDialog::kSecondButton);
  EXPECT_EQ(content.timeoutS, 0u);

  EXPECT_TRUE(desktop.Press(dialog, SkinDialog::kFirstButton));

  ASSERT_TRUE(IsOver(answer));
  EXPECT_EQ(answer.get(), kAccepted);
}

TEST_F(Consent, IsRefusedByTheSecondButton) {
  std::future<int> answer = AskMeanwhile();
  EXPECT_TRUE(desktop.Press(desktop.WaitForDialog(), SkinDialog::kSecondButton));
  ASSERT_TRUE(IsOver(answer));
  EXPECT_EQ(answer.get(), kRefused);
}

TEST_F(Consent, ThatIsWithdrawnHasNoAnswerAndLeavesTheScreen) {
  std::future<int> answer = AskMeanwhile();
  const uint32_t dialog = desktop.WaitForDialog();
  Withdraw();
  ASSERT_TRUE(IsOver(answer));
  EXPECT_EQ(answer.get(), kNoAnswer);
  EXPECT_TRUE(desktop.WaitUntilNoneIsOpen());
  EXPECT_FALSE(desktop.Press(dialog, SkinDialog::kFirstButton));
}

TEST_F(Consent, IsAskedForOnceAtATime) {
  std::future<int> answer = AskMeanwhile();
  const uint32_t dialog = desktop.WaitForDialog();

  EXPECT_EQ(Ask(), kBusy);

  EXPECT_EQ(desktop.CountShown(), 1u);
  EXPECT_TRUE(desktop.Press(dialog, SkinDialog::kFirstButton));
  ASSERT_TRUE(IsOver(answer));
  EXPECT_EQ(answer.get(), kAccepted);
}

TEST_F(Consent, IsRefusedAtOnceWhenTheProxyEnds) {
  std::future<int> answer = AskMeanwhile();
  ASSERT_NE(desktop.WaitForDialog(), 0u);

  StopProxy();

  // Long before any time-out of a connection.
  ASSERT_EQ(answer.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(answer.get(), kRefused);
  EXPECT_EQ(desktop.CountOpen(), 0u);
}

TEST_F(Consent, IsRefusedWithoutAProxy) {
  StopProxy();
  EXPECT_EQ(Ask(), kRefused);
}

TEST_F(Consent, IsRefusedWhenTheDialogCannotBeShown) {
  desktop.Break("the screen is on fire");
  EXPECT_EQ(Ask(), kRefused);
}

TEST_F(Consent, IsNotAskedForWhenThePersonIsAbsent) {
  desktop.SetActivity({std::chrono::hours(1), false});
  EXPECT_EQ(Ask(), kAbsent);
  desktop.SetActivity({milliseconds(0), true});
  EXPECT_EQ(Ask(), kAbsent);
  EXPECT_EQ(desktop.CountShown(), 0u);
}

/// Two requests that come at the same moment: both find nothing pending and ask the person.
class TwoConsents : public UserActions {
 protected:
  TwoConsents() {
    whenAboutToAsk = [this] { bothAreAboutToAsk_.arrive_and_wait(); };
  }
  ~TwoConsents() override { whenAboutToAsk = {}; }

  /// Asks in both names. Returns whether the person is asked twice; when the one request comes too
  /// late for that, takes the other back.
  bool AskBoth() {
    const size_t before = desktop.CountShown();
    anna = AskMeanwhile("Anna Admin");
    ben = AskMeanwhile("Ben Boss");
    for (;;) {
      if (desktop.CountShown() == before + 2) return true;
      const bool isAnnaOver = anna.wait_for(milliseconds(1)) == std::future_status::ready;
      const bool isBenOver = ben.wait_for(milliseconds(1)) == std::future_status::ready;
      if (isAnnaOver || isBenOver) break;
    }
    std::future<int>& waiting =
        anna.wait_for(milliseconds(0)) == std::future_status::ready ? ben : anna;
    EXPECT_NE(desktop.WaitForDialog(before + 1), 0u);
    Withdraw();
    EXPECT_TRUE(IsOver(waiting));
    EXPECT_THAT((std::vector<int>{anna.get(), ben.get()}),
                testing::UnorderedElementsAre(kBusy, kNoAnswer));
    return false;
  }
  /// The dialog that names the administrator.
  uint32_t DialogOf(const std::string& name) {
    for (const uint32_t id : {desktop.WaitForDialog(desktop.CountShown() - 1),
                              desktop.WaitForDialog(desktop.CountShown())}) {
      if (desktop.Content(id).value().text.find(name) != std::string::npos) return id;
    }
    return 0;
  }

  std::future<int> anna;
  std::future<int> ben;

 private:
  std::barrier<> bothAreAboutToAsk_{2};
};

TEST_F(TwoConsents, AtOnceAreAskedForAndAnsweredEachByItself) {
  constexpr int kMostTimes = 100;
  int times = 1;
  while (!AskBoth()) ASSERT_LT(times++, kMostTimes);

  EXPECT_TRUE(desktop.Press(DialogOf("Ben Boss"), SkinDialog::kSecondButton));
  ASSERT_TRUE(IsOver(ben));
  EXPECT_EQ(ben.get(), kRefused);
  EXPECT_TRUE(desktop.Press(DialogOf("Anna Admin"), SkinDialog::kFirstButton));
  ASSERT_TRUE(IsOver(anna));
  EXPECT_EQ(anna.get(), kAccepted);
  EXPECT_EQ(desktop.CountOpen(), 0u);
}

/// Asks a number of times while another thread withdraws and a third one is the person, who agrees
/// to every second question.
class ContestedConsent : public UserActions {
 protected:
  /// The threads run until `Finish`.
  void Start() {
    desktop.SetWhenShown([this](uint32_t id) { TellPerson(id); });
    threads_.emplace_back([this] {
      // Waits of different length, so that the withdrawals meet every moment of a question.
      for (unsigned round = 0; !isOver_; ++round) {
        Withdraw();
        std::this_thread::sleep_for(std::chrono::microseconds(round % 64 * 16));
      }
    });
    threads_.emplace_back([this] {
      for (uint32_t id = 0; !isOver_;) {
        shown_.wait(id);
        id = shown_.load();
        if (id % 2 == 0 && desktop.Press(id, SkinDialog::kFirstButton)) NotePress(id);
      }
    });
  }
  void Finish() {
    isOver_ = true;
    TellPerson(kNoDialog);
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }
  ~ContestedConsent() override { Finish(); }

  /// Whether the person has agreed to a question that names this administrator.
  bool HasAgreedTo(const std::string& name) {
    // The answer may be there before the press is noted.
    std::unique_lock lock(mutex_);
    return pressed_.wait_for(lock, std::chrono::seconds(10), [&] {
      return std::any_of(agreed_.begin(), agreed_.end(), [&](const std::string& question) {
        return question.find(name) != std::string::npos;
      });
    });
  }

 private:
  /// Not the number of any dialog, and nothing to agree to.
  static constexpr uint32_t kNoDialog = ~uint32_t{0};

  void TellPerson(uint32_t id) {
    shown_.store(id);
    shown_.notify_one();
  }
  void NotePress(uint32_t id) {
    const std::lock_guard lock(mutex_);
    agreed_.push_back(desktop.Content(id).value().text);
    pressed_.notify_all();
  }

  std::atomic<bool> isOver_ = false;
  std::atomic<uint32_t> shown_ = 0;
  std::mutex mutex_;
  std::condition_variable pressed_;
  std::vector<std::string> agreed_;
  std::vector<std::thread> threads_;
};

TEST_F(ContestedConsent, EndsEachTimeAndIsNeverTakenForGiven) {
  constexpr int kTimes = 1000;
  int unanswered = 0;
  int accepted = 0;
  Start();
  for (int i = 0; i < kTimes; ++i) {
    const std::string name = "Anna " + std::to_string(i) + ".";
    std::future<int> answer = AskMeanwhile(name);
    ASSERT_TRUE(IsOver(answer)) << i;
    switch (answer.get()) {
      case kAccepted:
        ++accepted;
        ASSERT_TRUE(HasAgreedTo(name)) << "nobody has agreed in round " << i;
        break;
      case kNoAnswer:
        ++unanswered;
        break;
      default:
        ADD_FAILURE() << "neither given nor withdrawn in round " << i;
    }
  }
  Finish();

  EXPECT_GT(unanswered, 0);
  EXPECT_EQ(desktop.CountOpen(), 0u);
  RecordProperty("accepted", accepted);
}

// ---- desktop lock ----

TEST_F(Lock, CoversTheScreenUntilTheLastUnlock) {
  EXPECT_EQ(CallWith(CoreUtilsLockDesktop, "LockMessage", "until noon"), kOk);
  EXPECT_TRUE(desktop.IsLocked());
  EXPECT_EQ(desktop.LockText().second, "until noon");
  EXPECT_EQ(Call(CoreUtilsLockDesktop), kOk);
  EXPECT_EQ(desktop.LockText().second, "");

  EXPECT_EQ(Call(CoreUtilsUnlockDesktop), kOk);
  EXPECT_TRUE(desktop.IsLocked());
  EXPECT_EQ(CallWith(CoreUtilsSetLockMessageText, "LockMessage", "50% <b>&amp;"), kOk);
  EXPECT_EQ(desktop.LockText().second, "50% <b>&amp;");
  EXPECT_EQ(Call(CoreUtilsUnlockDesktop), kOk);
  EXPECT_FALSE(desktop.IsLocked());
  EXPECT_EQ(Call(CoreUtilsUnlockDesktop), kFailed);
}

TEST_F(Lock, FailsWhereTheScreenCannotBeCovered) {
  desktop.Break("another program holds the keyboard");
  EXPECT_EQ(Call(CoreUtilsLockDesktop), kFailed);
  desktop.Break("");
  EXPECT_EQ(Call(CoreUtilsUnlockDesktop), kFailed);
}

TEST_F(Lock, FailsWithoutAProxyAndIsUndoneAllTheSame) {
  EXPECT_EQ(Call(CoreUtilsLockDesktop), kOk);
  StopProxy();
  EXPECT_EQ(Call(CoreUtilsRestoreDesktopLockState), kFailed);
  EXPECT_EQ(Call(CoreUtilsUnlockDesktop), kFailed);
  EXPECT_EQ(Call(CoreUtilsRestoreDesktopLockState), kOk);
}

TEST_F(Lock, IsRestoredBesideMessagesAndLocks) {
  constexpr int kTimes = 200;
  const std::vector<std::string> texts = {std::string(500, 'a'), std::string(700, 'b')};
  ASSERT_EQ(CallWith(CoreUtilsLockDesktop, "LockMessage", texts[0]), kOk);
  std::atomic<bool> isOver = false;
  std::thread restorer([&] {
    while (!isOver) EXPECT_EQ(Call(CoreUtilsRestoreDesktopLockState), kOk);
  });
  for (int i = 0; i < kTimes; ++i) {
    EXPECT_EQ(CallWith(CoreUtilsSetLockMessageText, "LockMessage", texts[i % 2]), kOk);
    EXPECT_THAT(texts, testing::Contains(desktop.LockText().second));
    EXPECT_EQ(CallWith(CoreUtilsLockDesktop, "LockMessage", texts[0]), kOk);
    EXPECT_EQ(Call(CoreUtilsUnlockDesktop), kOk);
  }
  isOver = true;
  restorer.join();

  EXPECT_EQ(Call(CoreUtilsUnlockDesktop), kOk);
  EXPECT_FALSE(desktop.IsLocked());
}

TEST_F(Lock, IsCountedBySeveralThreadsAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kTimes = 50;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < kTimes; ++j) {
        EXPECT_EQ(Call(CoreUtilsLockDesktop), kOk);
        EXPECT_EQ(Call(CoreUtilsUnlockDesktop), kOk);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_FALSE(desktop.IsLocked());
  EXPECT_EQ(Call(CoreUtilsUnlockDesktop), kFailed);
}

// ---- dialogs ----

TEST_F(Dialogs, ShowAMessageUntilItIsReplacedOrClosed) {
  EXPECT_EQ(CallWith(CoreUtilsShowDialog, "Message", "first"), kOk);
  const uint32_t first = desktop.WaitForDialog(1);
  const DialogContent content = desktop.Content(first).value();
  EXPECT_EQ(content.text, "first");
  EXPECT_TRUE(content.buttons.empty());
  EXPECT_EQ(content.closeButton, 0u);

  EXPECT_EQ(CallWith(CoreUtilsShowDialog, "Message", "second"), kOk);
  const uint32_t second = desktop.WaitForDialog(2);
  EXPECT_EQ(desktop.Content(second).value().text, "second");
  EXPECT_FALSE(desktop.IsOpen(first));
  EXPECT_TRUE(desktop.IsOpen(second));

  EXPECT_EQ(Call(CoreUtilsCloseDialog), kOk);
  EXPECT_TRUE(desktop.WaitUntilNoneIsOpen());
}

TEST_F(Dialogs, AreReplacedAndClosedBySeveralThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 20; ++j) {
        CallWith(CoreUtilsShowDialog, "Message", "m");
        Call(CoreUtilsCloseDialog);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(desktop.WaitUntilNoneIsOpen());
}

int32_t ResultOf(const ZelContainer& container) {
  int32_t result = -1;
  container.GetInt32("Result", &result, kNoIndex);
  return result;
}

TEST_F(Dialogs, AskWithAllTheirOptions) {
  ZelContainer params;
  const std::string message = "a \"q\" -TopMost 0 -n \"x\" 100% &\n\xC3\xBC";
  params.SetString("Message", message, kNoIndex);
  params.SetString("ButtonOK", "Now", kNoIndex);
  params.SetString("ButtonCancel", "Later", kNoIndex);
  params.SetString("Title", "The \"title\"", kNoIndex);
  params.SetInt32("TimeOut", 90, kNoIndex);
  params.SetInt32("TopMost", 1, kNoIndex);
  std::future<uint32_t> over =
      std::async(std::launch::async, [&] { return CoreUtilsAdvanceDialog(&params); });
  const uint32_t dialog = desktop.WaitForDialog();
  ASSERT_NE(dialog, 0u);

  const DialogContent content = desktop.Content(dialog).value();
  EXPECT_EQ(content.text, message);
  EXPECT_EQ(content.title, "The \"title\"");
  ASSERT_EQ(content.buttons.size(), 2u);
  EXPECT_EQ(content.buttons[0].label, "Now");
  EXPECT_EQ(content.buttons[1].label, "Later");
  EXPECT_EQ(content.timeoutS, 90u);
  EXPECT_TRUE(content.staysOnTop);
  EXPECT_TRUE(desktop.Press(dialog, SkinDialog::kFirstButton));
  ASSERT_TRUE(IsOver(over));
  EXPECT_EQ(over.get(), kOk);
  EXPECT_EQ(ResultOf(params), 1);
}

TEST_F(Dialogs, TellHowTheyEnded) {
  struct Row {
    ButtonId button;
    int32_t result;
  };
  size_t count = 0;
  for (const Row& row : {Row{SkinDialog::kCloseButton, 1}, Row{0, 2}}) {
    ZelContainer params;
    params.SetString("ButtonOK", "Understood", kNoIndex);
    std::future<uint32_t> over =
        std::async(std::launch::async, [&] { return CoreUtilsAdvanceDialog(&params); });
    const uint32_t dialog = desktop.WaitForDialog(++count);
    EXPECT_EQ(desktop.Content(dialog).value().buttons.at(0).label, "Understood");
    EXPECT_TRUE(desktop.Press(dialog, row.button));
    ASSERT_TRUE(IsOver(over));
    EXPECT_EQ(ResultOf(params), row.result);
  }
}

TEST_F(Dialogs, EndWithZeroWhenTheProxyEnds) {
  ZelContainer params;
  std::future<uint32_t> over =
      std::async(std::launch::async, [&] { return CoreUtilsAdvanceDialog(&params); });
  ASSERT_NE(desktop.WaitForDialog(), 0u);

  StopProxy();

  ASSERT_EQ(over.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(ResultOf(params), 0);
}

// ---- session ----

TEST_F(UserActions, TellWhetherThePersonIsAbsent) {
  for (const bool isLocked : {false, true}) {
    desktop.SetActivity({milliseconds(0), isLocked});
    ZelContainer params;
    EXPECT_EQ(CoreUtilsIsUserLogged(&params), kOk);
    bool isAbsent = !isLocked;
    EXPECT_TRUE(params.GetBool("ScreenSaving", &isAbsent, kNoIndex));
    EXPECT_EQ(isAbsent, isLocked);
  }
}

}  // namespace
