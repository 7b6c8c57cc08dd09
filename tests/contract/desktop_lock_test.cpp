#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "tests/contract/user_test.h"

namespace {

const std::string kTitleQuery = Translation("_MESSAGEBOXTITLE_DEVICELOCKED_");

std::string LocksAt(const std::string& pipe) {
  return "ProxyDesktopLockManager::Lock(\"" + pipe + "\")";
}

std::string UnlocksAt(const std::string& pipe) {
  return "ProxyDesktopLockManager::Unlock(\"" + pipe + "\")";
}

std::string Sends(const std::string& text, const std::string& pipe = "pipe",
                  const std::string& title = "Locked") {
  return "ProxyDesktopLockManager::SetMessage(\"" + pipe + "\", \"" + title + "\", \"" + text +
         "\")";
}

ZelContainer Message(const char* text) {
  return Texts({{"LockMessage", text}});
}

class LockTest : public UserTest {
 protected:
  void AnswerLock(int locked = 1) {
    AnswerPipe();
    host.Answer("ProxyDesktopLockManager::Lock", locked);
  }
  void AnswerMessage(int sent = 1) {
    AnswerPipe();
    host.AnswerText("ZelAgentGetTranslation", "Locked");
    host.Answer("ProxyDesktopLockManager::SetMessage", sent);
  }
  void AnswerUnlock(int unlocked = 1) {
    AnswerPipe();
    host.Answer("ProxyDesktopLockManager::Unlock", unlocked);
  }
  /// Within a restoration the message goes to the pipe that the lock went to.
  void AnswerRestore(int locked = 1, int sent = 1) {
    AnswerLock(locked);
    if (!locked) return;
    host.AnswerText("ZelAgentGetTranslation", "Locked");
    host.Answer("ProxyDesktopLockManager::SetMessage", sent);
  }
  /// Locks the desktop so many times and forgets the calls that this took.
  void LockTimes(int times, const char* text = "first") {
    for (int i = 0; i < times; ++i) {
      if (i == 0) AnswerLock();
      AnswerMessage();
      EXPECT_EQ(Code("CoreUtilsLockDesktop", Message(text)), kSuccess);
    }
    host.ForgetTranscript();
  }
  /// Expects so many locks to be there to be undone.
  void ExpectCount(int count) {
    for (int i = count; i > 0; --i) {
      if (i == 1) AnswerUnlock();
      EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kSuccess) << i;
    }
    host.ForgetTranscript();
    EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kFailure);
    EXPECT_THAT(host.Transcript(), IsEmpty());
  }
};

using LockDesktop = LockTest;
using SetLockMessageText = LockTest;
using UnlockDesktop = LockTest;
using RestoreDesktopLockState = LockTest;

// ---- CoreUtilsLockDesktop ----

TEST_F(LockDesktop, LocksThroughTheProxyAndThenSendsTheMessage) {
  host.AnswerText("ZelAgentGetProxyPipeName", "pipe for the lock");
  host.Answer("ProxyDesktopLockManager::Lock", 1);
  host.AnswerText("ZelAgentGetProxyPipeName", "pipe for the message");
  host.AnswerText("ZelAgentGetTranslation", "This device is locked");
  host.Answer("ProxyDesktopLockManager::SetMessage", 1);

  EXPECT_EQ(Code("CoreUtilsLockDesktop", Message("Updates until noon")), kSuccess);

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kAsksForPipe, LocksAt("pipe for the lock"), kAsksForPipe, kTitleQuery,
                  Sends("Updates until noon", "pipe for the message", "This device is locked")));
}

TEST_F(LockDesktop, LeavesTheContainerAsItWas) {
  AnswerLock();
  AnswerMessage();
  EXPECT_EQ(Run("CoreUtilsLockDesktop", Texts({{"LockMessage", "m"}, {"Other", "x"}})),
            (Outcome{kSuccess, "{LockMessage: String \"m\", Other: String \"x\"}"}));
}

TEST_F(LockDesktop, SendsNothingMoreWhenTheProxyDoesNotLock) {
  AnswerLock(0);

  EXPECT_EQ(Run("CoreUtilsLockDesktop", Message("m")),
            (Outcome{kFailure, "{LockMessage: String \"m\"}"}));

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, LocksAt("pipe")));
  ExpectCount(0);
}

TEST_F(LockDesktop, AsksTheProxyAnewAfterAFailedLock) {
  AnswerLock(0);
  EXPECT_EQ(Code("CoreUtilsLockDesktop"), kFailure);
  LockTimes(1);
  ExpectCount(1);
}

TEST_F(LockDesktop, IsLockedAlthoughTheMessageCouldNotBeSent) {
  AnswerLock();
  AnswerMessage(0);

  EXPECT_EQ(Code("CoreUtilsLockDesktop", Message("m")), kFailure);

  EXPECT_THAT(TakeCalls(),
              ElementsAre(kAsksForPipe, LocksAt("pipe"), kAsksForPipe, kTitleQuery, Sends("m")));
  ExpectCount(1);
}

TEST_F(LockDesktop, NestedSendsTheMessageAlone) {
  for (int locks = 1; locks <= 3; ++locks) {
    LockTimes(locks);
    AnswerMessage();

    EXPECT_EQ(Code("CoreUtilsLockDesktop", Message("second")), kSuccess);

    EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, kTitleQuery, Sends("second")));
    ExpectCount(locks + 1);
  }
}

TEST_F(LockDesktop, NestedCountsAlthoughTheMessageCouldNotBeSent) {
  LockTimes(1);
  AnswerMessage(0);

  EXPECT_EQ(Code("CoreUtilsLockDesktop", Message("second")), kFailure);

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, kTitleQuery, Sends("second")));
  ExpectCount(2);
}

TEST_F(LockDesktop, SendsAnEmptyMessageWhenThereIsNone) {
  AnswerLock();
  AnswerMessage();
  EXPECT_EQ(Run("CoreUtilsLockDesktop", {}), (Outcome{kSuccess, "{}"}));
  EXPECT_EQ(host.Transcript().back(), Sends(""));
}

TEST_F(LockDesktop, TakesAMessageOfAnotherTypeAsNone) {
  ZelContainer number;
  number.SetInt32("LockMessage", 7, kNoIndex);
  ZelContainer list;
  list.SetString("LockMessage", "m", 0);
  for (const ZelContainer& params : {number, list}) {
    AnswerLock();
    AnswerMessage();
    EXPECT_EQ(Code("CoreUtilsLockDesktop", params), kSuccess);
    EXPECT_EQ(host.Transcript().back(), Sends(""));
    ExpectCount(1);
  }
}

TEST_F(LockDesktop, NestedWithoutAMessageReplacesTheMessageByNone) {
  LockTimes(1);
  AnswerMessage();
  EXPECT_EQ(Code("CoreUtilsLockDesktop"), kSuccess);
  AnswerRestore();

  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kSuccess);

  EXPECT_EQ(host.Transcript().back(), Sends(""));
}

TEST_F(LockDesktop, PassesTextsOnAsTheyAre) {
  AnswerLock();
  AnswerPipe();
  host.AnswerText("ZelAgentGetTranslation", "50% \"%S\" &title");
  host.Answer("ProxyDesktopLockManager::SetMessage", 1);

  EXPECT_EQ(Code("CoreUtilsLockDesktop", Message("100%% %s \"q\" <b>\r\n\xC3\xBC")), kSuccess);

  EXPECT_EQ(host.Transcript().back(),
            Sends("100%% %s \"q\" <b>\\x0d\\x0a\xC3\xBC", "pipe", "50% \"%S\" &title"));
}

TEST_F(LockDesktop, GoesOnWithoutAPipeName) {
  host.AnswerText("ZelAgentGetProxyPipeName", "");
  host.Answer("ProxyDesktopLockManager::Lock", 0);

  EXPECT_EQ(Code("CoreUtilsLockDesktop"), kFailure);

  EXPECT_THAT(host.Transcript(), ElementsAre(kAsksForPipe, LocksAt("")));
}

TEST_F(LockDesktop, DoesNotWaitForAMessageThatIsBeingShown) {
  AnswerMessageShown([this] { ExpectNotToWait([this] { LockTimes(1); }); });

  EXPECT_EQ(Code("CoreUtilsShowDialog"), kSuccess);

  ExpectCount(1);
}

TEST_F(LockDesktop, CountsMoreLocksThanSixteenBitsHold) {
  LockTimes(65537);
  ExpectCount(65537);
}

// ---- CoreUtilsSetLockMessageText ----

TEST_F(SetLockMessageText, SendsTheTextToALockedDesktop) {
  LockTimes(2);
  host.AnswerText("ZelAgentGetProxyPipeName", "another pipe");
  host.AnswerText("ZelAgentGetTranslation", "Verrouill\xC3\xA9");
  host.Answer("ProxyDesktopLockManager::SetMessage", 1);

  EXPECT_EQ(Run("CoreUtilsSetLockMessageText", Message("second")),
            (Outcome{kSuccess, "{LockMessage: String \"second\"}"}));

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, kTitleQuery,
                                       Sends("second", "another pipe", "Verrouill\xC3\xA9")));
  ExpectCount(2);
}

TEST_F(SetLockMessageText, FailsOnAnUnlockedDesktopAndSendsNothing) {
  EXPECT_EQ(Run("CoreUtilsSetLockMessageText", Message("m")),
            (Outcome{kFailure, "{LockMessage: String \"m\"}"}));
  EXPECT_THAT(host.Transcript(), IsEmpty());
  ExpectCount(0);
}

TEST_F(SetLockMessageText, FailsAfterTheLastUnlockAndLeavesTheTextOfThatLock) {
  LockTimes(1);
  // Only a restoration that found the desktop locked tells of the text of an unlocked one.
  AnswerPipe();
  host.AnswerWork("ProxyDesktopLockManager::Lock", 1, [this] {
    ExpectCount(1);
    EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("too late")), kFailure);
  });
  host.AnswerText("ZelAgentGetTranslation", "Locked");
  host.Answer("ProxyDesktopLockManager::SetMessage", 1);

  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kSuccess);

  EXPECT_EQ(host.Transcript().back(), Sends("first"));
}

TEST_F(SetLockMessageText, FailsWhenTheProxyDoesAndStaysLocked) {
  LockTimes(1);
  AnswerMessage(0);

  EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("second")), kFailure);

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, kTitleQuery, Sends("second")));
  ExpectCount(1);
}

TEST_F(SetLockMessageText, IsKeptAlsoWhenItCouldNotBeSent) {
  LockTimes(1);
  AnswerMessage(0);
  EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("second")), kFailure);
  AnswerRestore();

  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kSuccess);

  EXPECT_EQ(host.Transcript().back(), Sends("second"));
}

TEST_F(SetLockMessageText, TakesAMessageOfAnotherTypeAsNone) {
  LockTimes(1);
  for (const ZelContainer& params : WithoutText(Message("m"), "LockMessage")) {
    AnswerMessage();
    EXPECT_EQ(Code("CoreUtilsSetLockMessageText", params), kSuccess);
    EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, kTitleQuery, Sends("")));
  }
}

TEST_F(SetLockMessageText, SendsAnEmptyTextWhenThereIsNone) {
  LockTimes(1);
  AnswerMessage();
  EXPECT_EQ(Run("CoreUtilsSetLockMessageText", {}), (Outcome{kSuccess, "{}"}));
  EXPECT_EQ(host.Transcript().back(), Sends(""));
}

// ---- CoreUtilsUnlockDesktop ----

TEST_F(UnlockDesktop, UnlocksThroughTheProxy) {
  LockTimes(1);
  host.AnswerText("ZelAgentGetProxyPipeName", "another pipe");
  host.Answer("ProxyDesktopLockManager::Unlock", 1);

  EXPECT_EQ(Run("CoreUtilsUnlockDesktop", Texts({{"LockMessage", "m"}})),
            (Outcome{kSuccess, "{LockMessage: String \"m\"}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre(kAsksForPipe, UnlocksAt("another pipe")));
}

TEST_F(UnlockDesktop, IsTheLastThatReachesTheProxy) {
  for (int locks = 2; locks <= 4; ++locks) {
    LockTimes(locks);
    for (int i = 1; i < locks; ++i) EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kSuccess);
    EXPECT_THAT(TakeCalls(), IsEmpty());
    AnswerUnlock();

    EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kSuccess);

    EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, UnlocksAt("pipe")));
  }
}

TEST_F(UnlockDesktop, LeavesTheDesktopLockedWhileAnotherLockIsThere) {
  LockTimes(2);
  EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kSuccess);
  AnswerMessage();

  EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("still")), kSuccess);

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, kTitleQuery, Sends("still")));
}

TEST_F(UnlockDesktop, FailsOnAnUnlockedDesktopHoweverOften) {
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(Run("CoreUtilsUnlockDesktop", {}), (Outcome{kFailure, "{}"}));
  EXPECT_THAT(host.Transcript(), IsEmpty());

  // The count has not gone below 0: one lock is one lock.
  LockTimes(1);
  ExpectCount(1);
}

TEST_F(UnlockDesktop, HasUnlockedAlsoWhenTheProxyFails) {
  LockTimes(1);
  AnswerUnlock(0);

  EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kFailure);
  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, UnlocksAt("pipe")));

  EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kFailure);
  EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("m")), kFailure);
  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kSuccess);
  EXPECT_THAT(host.Transcript(), IsEmpty());
}

TEST_F(UnlockDesktop, IsFollowedByALockOfTheProxy) {
  LockTimes(1);
  ExpectCount(1);
  AnswerLock();
  AnswerMessage();

  EXPECT_EQ(Code("CoreUtilsLockDesktop", Message("again")), kSuccess);

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, LocksAt("pipe"), kAsksForPipe, kTitleQuery,
                                       Sends("again")));
}

TEST_F(UnlockDesktop, IsNotDoneByTheEndOfTheModule) {
  LockTimes(2);

  EXPECT_EQ(ModuleMain(5, 0, nullptr), 1u);
  EXPECT_EQ(ModuleMain(2, 0, nullptr), 1u);

  EXPECT_THAT(TakeCalls(), ElementsAre("Trace \"Module Cleanup starting\"",
                                       "Trace \"Module Unregister starting\""));
  ExpectCount(2);
}

// ---- CoreUtilsRestoreDesktopLockState ----

TEST_F(RestoreDesktopLockState, SendsNothingForAnUnlockedDesktop) {
  EXPECT_EQ(Run("CoreUtilsRestoreDesktopLockState", Message("m")),
            (Outcome{kSuccess, "{LockMessage: String \"m\"}"}));
  LockTimes(1);
  ExpectCount(1);

  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kSuccess);

  EXPECT_THAT(host.Transcript(), IsEmpty());
}

TEST_F(RestoreDesktopLockState, SendsTheLockAndTheLastMessageWithTheTitleTranslatedAnew) {
  LockTimes(1);
  AnswerMessage();
  EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("second")), kSuccess);
  host.ForgetTranscript();
  host.AnswerText("ZelAgentGetProxyPipeName", "another pipe");
  host.Answer("ProxyDesktopLockManager::Lock", 1);
  host.AnswerText("ZelAgentGetTranslation", "Gesperrt");
  host.Answer("ProxyDesktopLockManager::SetMessage", 1);

  EXPECT_EQ(Run("CoreUtilsRestoreDesktopLockState", {}), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, LocksAt("another pipe"), kTitleQuery,
                                       Sends("second", "another pipe", "Gesperrt")));
  ExpectCount(1);
}

TEST_F(RestoreDesktopLockState, SendsNoMessageWhenTheLockFails) {
  LockTimes(2);
  AnswerRestore(0);

  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kFailure);

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, LocksAt("pipe")));
  ExpectCount(2);
}

TEST_F(RestoreDesktopLockState, FailsWhenTheMessageDoes) {
  LockTimes(2);
  AnswerRestore(1, 0);

  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kFailure);

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, LocksAt("pipe"), kTitleQuery, Sends("first")));
  ExpectCount(2);
}

TEST_F(RestoreDesktopLockState, LetsOtherActionsRunWhileItAsksTheProxyAndSendsTheTextOfThen) {
  LockTimes(1);
  AnswerPipe();
  host.AnswerWork("ProxyDesktopLockManager::Lock", 1, [this] {
    AnswerMessage();
    EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("second")), kSuccess);
  });
  host.AnswerText("ZelAgentGetTranslation", "Locked");
  host.AnswerWork("ProxyDesktopLockManager::SetMessage", 1, {});

  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kSuccess);

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, LocksAt("pipe"), kAsksForPipe, kTitleQuery,
                                       Sends("second"), kTitleQuery, Sends("second")));
}

TEST_F(RestoreDesktopLockState, SendsTheTextThatIsSetWhileItAsksForTheTitle) {
  LockTimes(1);
  AnswerRestore();
  DoWithin(kTitleQuery, [this] {
    AnswerPipe();
    host.AnswerText("ZelAgentGetTranslation", "Gesperrt");
    host.Answer("ProxyDesktopLockManager::SetMessage", 1);
    EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("second")), kSuccess);
  });

  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kSuccess);

  // The answers are taken in the order of the questions: the restoration's is the second title.
  EXPECT_THAT(TakeCalls(),
              ElementsAre(kAsksForPipe, LocksAt("pipe"), kTitleQuery, kAsksForPipe, kTitleQuery,
                          Sends("second"), Sends("second", "pipe", "Gesperrt")));
}

TEST_F(RestoreDesktopLockState, HoldsNobodyUpWhateverItWaitsFor) {
  for (const std::string& step : {kAsksForPipe, LocksAt("pipe"), kTitleQuery, Sends("first")}) {
    LockTimes(1);
    AnswerRestore();
    DoWithin(step, [this] {
      ExpectNotToWait([this] {
        AnswerMessage();
        EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("second")), kSuccess);
      });
    });

    EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kSuccess) << step;

    ExpectCount(1);
  }
}

TEST_F(RestoreDesktopLockState, GoesOnWhenTheDesktopIsUnlockedMeanwhile) {
  LockTimes(1);
  AnswerPipe();
  host.AnswerWork("ProxyDesktopLockManager::Lock", 1, [this] { ExpectCount(1); });
  host.AnswerText("ZelAgentGetTranslation", "Locked");
  host.Answer("ProxyDesktopLockManager::SetMessage", 0);

  EXPECT_EQ(Code("CoreUtilsRestoreDesktopLockState"), kFailure);

  EXPECT_EQ(host.Transcript().back(), Sends("first"));
}

// ---- side by side ----

/// The actions wait for each other, but for what a restoration does.
using SideBySide = LockTest;

TEST_F(SideBySide, ALockWaitsForALockAndTheProxyIsLockedOnce) {
  AnswerPipe();
  host.AnswerWork("ProxyDesktopLockManager::Lock", 1,
                  RivalThatWaits("CoreUtilsLockDesktop", Message("m")));
  AnswerMessage();
  AnswerMessage();

  EXPECT_EQ(Code("CoreUtilsLockDesktop", Message("m")), kSuccess);
  EXPECT_EQ(rival.get(), kSuccess);

  const std::vector<std::string> calls = TakeCalls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), LocksAt("pipe")), 1);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), Sends("m")), 2);
  ExpectCount(2);
}

TEST_F(SideBySide, AnUnlockWaitsForALock) {
  AnswerPipe();
  host.AnswerWork("ProxyDesktopLockManager::Lock", 1, RivalThatWaits("CoreUtilsUnlockDesktop"));
  // Between its two halves a lock may be undone: then there is no message to send.
  host.AnswerAlways("ZelAgentGetProxyPipeName", 0);
  host.AnswerAlways("ZelAgentGetTranslation", 0);
  host.AnswerAlways("ProxyDesktopLockManager::SetMessage", 1);
  AnswerUnlock();

  Code("CoreUtilsLockDesktop");
  EXPECT_EQ(rival.get(), kSuccess);

  ExpectCount(0);
}

TEST_F(SideBySide, ALockWaitsForAMessageThatIsBeingSent) {
  LockTimes(1);
  AnswerPipe();
  host.AnswerText("ZelAgentGetTranslation", "Locked");
  host.AnswerWork("ProxyDesktopLockManager::SetMessage", 1, RivalThatWaits("CoreUtilsLockDesktop"));
  AnswerMessage();

  EXPECT_EQ(Code("CoreUtilsSetLockMessageText"), kSuccess);
  EXPECT_EQ(rival.get(), kSuccess);
  ExpectCount(2);
}

TEST_F(SideBySide, AMessageWaitsForAMessageThatIsBeingSent) {
  LockTimes(1);
  AnswerPipe();
  host.AnswerText("ZelAgentGetTranslation", "Locked");
  host.AnswerWork("ProxyDesktopLockManager::SetMessage", 1,
                  RivalThatWaits("CoreUtilsSetLockMessageText", Message("third")));
  AnswerMessage();

  EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("second")), kSuccess);
  EXPECT_EQ(rival.get(), kSuccess);
  EXPECT_EQ(host.Transcript().back(), Sends("third"));
}

TEST_F(SideBySide, AMessageWaitsForAnUnlockAndComesTooLate) {
  LockTimes(1);
  AnswerPipe();
  host.AnswerWork("ProxyDesktopLockManager::Unlock", 1,
                  RivalThatWaits("CoreUtilsSetLockMessageText"));

  EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kSuccess);
  EXPECT_EQ(rival.get(), kFailure);
}

TEST_F(SideBySide, EachStepHoldsUpEveryOtherAction) {
  for (const char* function : {"ZelAgentGetProxyPipeName", "ZelAgentGetTranslation"})
    host.AnswerAlways(function, 0);
  for (const char* function : {"Lock", "SetMessage", "Unlock"})
    host.AnswerAlways(std::string("ProxyDesktopLockManager::") + function, 1);
  const std::string lock = "CoreUtilsLockDesktop";
  const std::string message = "CoreUtilsSetLockMessageText";
  const std::string unlock = "CoreUtilsUnlockDesktop";
  const std::vector<std::pair<std::string, std::vector<std::string>>> actions = {
      {lock, {kAsksForPipe, LocksAt("")}},
      {message, {kAsksForPipe, kTitleQuery, Sends("", "", "")}},
      {unlock, {kAsksForPipe, UnlocksAt("")}}};

  for (const auto& [action, steps] : actions) {
    for (const std::string& step : steps) {
      for (const std::string& other : {lock, message, unlock}) {
        if (action != lock) Code(lock);
        RunWithRival(step, action, {}, other, {});
        while (Code(unlock) == kSuccess) {
        }
      }
    }
  }
}

/// Where a restoration begins it waits, once it has begun it does not.
TEST_F(SideBySide, ARestorationBeginsAfterTheMessageThatIsBeingSent) {
  LockTimes(1);
  AnswerPipe();
  host.AnswerText("ZelAgentGetTranslation", "Locked");
  host.AnswerWork("ProxyDesktopLockManager::SetMessage", 1,
                  RivalThatWaits("CoreUtilsRestoreDesktopLockState"));
  AnswerRestore();

  EXPECT_EQ(Code("CoreUtilsSetLockMessageText", Message("second")), kSuccess);
  EXPECT_EQ(rival.get(), kSuccess);

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe, kTitleQuery, Sends("second"), kAsksForPipe,
                                       LocksAt("pipe"), kTitleQuery, Sends("second")));
}

TEST_F(SideBySide, AnUnlockWaitsForAMessageThatIsBeingSent) {
  LockTimes(1);
  AnswerPipe();
  host.AnswerText("ZelAgentGetTranslation", "Locked");
  host.AnswerWork("ProxyDesktopLockManager::SetMessage", 1,
                  RivalThatWaits("CoreUtilsUnlockDesktop"));
  AnswerUnlock();

  EXPECT_EQ(Code("CoreUtilsSetLockMessageText"), kSuccess);
  EXPECT_EQ(rival.get(), kSuccess);
}

TEST_F(SideBySide, AnUnlockWaitsForAnUnlock) {
  LockTimes(1);
  AnswerPipe();
  host.AnswerWork("ProxyDesktopLockManager::Unlock", 1, RivalThatWaits("CoreUtilsUnlockDesktop"));

  EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kSuccess);
  EXPECT_EQ(rival.get(), kFailure);
}

TEST_F(SideBySide, ALockWaitsForAnUnlock) {
  LockTimes(1);
  AnswerPipe();
  host.AnswerWork("ProxyDesktopLockManager::Unlock", 1, RivalThatWaits("CoreUtilsLockDesktop"));
  AnswerLock();
  AnswerMessage();

  EXPECT_EQ(Code("CoreUtilsUnlockDesktop"), kSuccess);
  EXPECT_EQ(rival.get(), kSuccess);
  ExpectCount(1);
}

}  // namespace
