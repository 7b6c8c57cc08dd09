#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/contract/module_test.h"

// What the tests of the actions for the logged-on user share.

/// Takes the desktop lock back and closes the dialog that is shown: both are the process's. Needs a
/// host that knows the module's actions.
inline void EndUserInteraction(FakeHost& host) {
  for (const char* function : {"ZelAgentGetProxyPipeName", "SkinDialog::Close"}) {
    host.AnswerAlways(function, 0);
  }
  host.AnswerAlways("ProxyDesktopLockManager::Unlock", 1);
  while (RunAction(host, "CoreUtilsUnlockDesktop", {}).code == kSuccess) {
  }
  RunAction(host, "CoreUtilsCloseDialog", {});
}

class UserTest : public ModuleTest {
 protected:
  void TearDown() override {
    ModuleTest::TearDown();
    // Those of the test, before the end takes them.
    EXPECT_THAT(host.LeftOverAnswers(), IsEmpty());
    EndUserInteraction(host);
  }

  void AnswerPipe() { host.AnswerText("ZelAgentGetProxyPipeName", "pipe"); }
  /// Scripts a message of `CoreUtilsShowDialog`, with something to do while it is being shown.
  void AnswerMessageShown(std::function<void()> meanwhile = {}) {
    AnswerPipe();
    host.Answer("SkinDialog", 0);
    host.Answer("SkinDialog::IsInitialised", 1);
    host.AnswerWork("SkinDialog::Show", 0, std::move(meanwhile));
  }
  ResultCode Code(const std::string& action, const ZelContainer& params = {}) {
    return Run(action, params).code;
  }

  /// To be done in the midst of a call: begins the action on another thread, where it has to come
  /// to a mutex that the action which makes this call holds. The host is used by one thread at a
  /// time: by the other one until it waits, and after this one has ended its action.
  std::function<void()> RivalThatWaits(const std::string& action, const ZelContainer& params = {}) {
    return [this, action, params] {
      rival = std::async(std::launch::async, [=, this] { return Code(action, params); });
      EXPECT_TRUE(ComesToAMutex(rival)) << action << " does not wait";
    };
  }
  /// Runs the action and, from its first call on that starts with `step`, the rival beside it,
  /// which has to wait there.
  void RunWithRival(const std::string& step, const std::string& action, const ZelContainer& params,
                    const std::string& rivalAction, const ZelContainer& rivalParams) {
    DoWithin(step, RivalThatWaits(rivalAction, rivalParams));
    Code(action, params);
    ASSERT_TRUE(rival.valid()) << action << " makes no call " << step;
    rival.get();
  }
  /// Does something once, in the midst of the next call whose line starts like this: before it
  /// answers.
  void DoWithin(const std::string& start, std::function<void()> work) {
    host.WatchCalls([start, work = std::move(work), isDone = false](std::string_view call) mutable {
      if (!call.starts_with(start) || std::exchange(isDone, true)) return;
      work();
    });
  }
  /// The calls since the last look.
  std::vector<std::string> TakeCalls() {
    const std::vector<std::string> calls = host.Transcript();
    host.ForgetTranscript();
    return calls;
  }

  std::future<ResultCode> rival;
};

inline const std::string kAsksForPipe = "ZelAgentGetProxyPipeName()";
inline const std::string kAsksWhoIsLogged = "IsUserLogged()";
inline const std::string kAsksInitialised = "SkinDialog::IsInitialised(false)";
inline const std::string kAsksButton = "SkinDialog::GetButtonClickedID(false)";
inline const std::string kCloses = "SkinDialog::Close(false, false)";
inline const std::string kDeletes = "~SkinDialog";

inline const std::string kShowsAndReturns = "SkinDialog::Show(false, false)";

inline std::string MakesMessage(const std::string& text) {
  return "SkinDialog(null, \"" + text + "\", \"\", \"\", \"\", 0, \"pipe\", false, \"\")";
}

inline std::string Translation(const std::string& key) {
  return "ZelAgentGetTranslation(\"" + key + "\", \"\")";
}
