#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include "tests/contract/user_test.h"

namespace {

const std::vector<std::string> kTranslations = {
    Translation("_MESSAGEBOX_DA_ACKNOWLEDGMENTREQUEST_"), Translation("_ACTION_YES_"),
    Translation("_ACTION_NO_")};

const std::string kAsksWhetherAbsent = "ProxyUtils::IsUserAbsent(\"pipe\")";
const std::string kMakesDialog =
    "SkinDialog(null, \"May Anna Admin see your screen?\", \"Yes\", \"No\", \"\", 2, \"pipe\", "
    "false, \"\")";
const std::string kShows = "SkinDialog::Show(true, false)";

constexpr const char* kWaiting = "Waiting for acknowledgment of local user";
constexpr const char* kAcceptedText = "Connection accepted by local user";
constexpr const char* kRefusedText = "Connection refused by local user";
constexpr const char* kAbortedText = "Connection aborted by remote administrator";
constexpr const char* kNoProxyText =
    "connection refused: no proxy on host, so user cannot be asked";
constexpr const char* kBusyText = "Connection impossible now, waiting for another acknowlegment";
constexpr const char* kNobodyText = "Connection impossible nobody logged";
constexpr const char* kAbsentText = "Connection impossible user absent";

std::string Audit(const std::string& event, const std::string& user = "maria",
                  const std::string& address = "192.0.2.7") {
  return "Audit \"" + user + "\", \"" + address + "\", \"" + event + ", class Direct Access\"";
}

const Outcome kAborted{kSuccess, "{}"};

Outcome Acknowledge(int value) {
  return {kSuccess, "{Acknowledge: Int32 " + std::to_string(value) + "}"};
}

ZelContainer AskingFor(const char* adminName, const char* user = "maria",
                       const char* address = "192.0.2.7") {
  ZelContainer params =
      Texts({{"DACurrentConsoleUser", user}, {"DisplayAdminName", adminName}, {"Other", "x"}});
  params.SetContainer("HttpProtocolRequestInfo", Texts({{"HttpProtocolRequestAddress", address}}),
                      kNoIndex);
  return params;
}

class AcknowledgementTest : public UserTest {
 protected:
  void AnswerTexts(const ZelString& question = "May {AdminName} see your screen?") {
    host.AnswerText("ZelAgentGetTranslation", question);
    host.AnswerText("ZelAgentGetTranslation", "Yes");
    host.AnswerText("ZelAgentGetTranslation", "No");
    AnswerPipe();
  }
  /// Up to the dialog.
  void AnswerPresent() {
    AnswerTexts();
    host.Answer("IsUserLogged", 1);
    host.Answer("ProxyUtils::IsUserAbsent", 0);
  }
  void AnswerDialogMade() {
    AnswerPresent();
    host.Answer("SkinDialog", 0);
  }
  /// A dialog that runs `meanwhile` while it is shown and ends with `button`.
  void AnswerShown(unsigned int button, std::function<void()> meanwhile = {}) {
    AnswerDialogMade();
    host.Answer("SkinDialog::IsInitialised", 1);
    host.AnswerWork("SkinDialog::Show", 0, std::move(meanwhile));
    host.Answer("SkinDialog::GetButtonClickedID", button);
  }
  Outcome Ask() { return Run("CoreUtilsCheckClientAccept", AskingFor("Anna Admin")); }
  Outcome Withdraw() { return Run("CoreUtilsDestroyAckPopup", {}); }

  /// Expects the calls since the last look to be those up to the dialog, and these.
  void ExpectAfterPresence(const std::vector<std::string>& rest) {
    std::vector<std::string> expected = kTranslations;
    for (const std::string& line :
         {std::string(kAsksForPipe), kAsksWhoIsLogged, kAsksWhetherAbsent}) {
      expected.push_back(line);
    }
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_EQ(TakeCalls(), expected);
  }
};

using CheckClientAccept = AcknowledgementTest;
using DestroyAckPopup = AcknowledgementTest;

// ---- the answers of the user ----

TEST_F(CheckClientAccept, AsksTheUserAndReportsTheConsent) {
  AnswerShown(100);

  EXPECT_EQ(Ask(), Acknowledge(1));

  ExpectAfterPresence({kMakesDialog, Audit(kWaiting), kAsksInitialised, kShows, kAsksButton,
                       Audit(kAcceptedText), kDeletes});
}

TEST_F(CheckClientAccept, ReportsTheRefusal) {
  AnswerShown(101);

  EXPECT_EQ(Ask(), Acknowledge(0));

  ExpectAfterPresence({kMakesDialog, Audit(kWaiting), kAsksInitialised, kShows, kAsksButton,
                       Audit(kRefusedText), kDeletes});
}

TEST_F(CheckClientAccept, ReportsNothingForADialogThatEndedWithoutEither) {
  for (const unsigned int button : {0U, 1U, 99U, 102U, 356U, ~0U}) {
    AnswerShown(button);

    EXPECT_EQ(Ask(), kAborted) << button;

    ExpectAfterPresence({kMakesDialog, Audit(kWaiting), kAsksInitialised, kShows, kAsksButton,
                         Audit(kAbortedText), kDeletes});
  }
}

// ---- who cannot be asked ----

TEST_F(CheckClientAccept, AsksNobodyWhenNobodyIsLoggedOn) {
  AnswerTexts();
  host.Answer("IsUserLogged", 0);

  EXPECT_EQ(Ask(), Acknowledge(3));

  std::vector<std::string> expected = kTranslations;
  expected.insert(expected.end(), {kAsksForPipe, kAsksWhoIsLogged, Audit(kNobodyText)});
  EXPECT_EQ(host.Transcript(), expected);
}

TEST_F(CheckClientAccept, AsksNobodyWhenTheUserIsAbsent) {
  AnswerTexts();
  host.Answer("IsUserLogged", 1);
  host.Answer("ProxyUtils::IsUserAbsent", 1);

  EXPECT_EQ(Ask(), Acknowledge(4));

  ExpectAfterPresence({Audit(kAbsentText)});
}

TEST_F(CheckClientAccept, LeavesTheQuestionThatIsBeingAskedAlone) {
  Outcome rival = kAborted;
  AnswerShown(100, [&] {
    host.ForgetTranscript();
    AnswerPresent();
    rival = Ask();
    ExpectAfterPresence({Audit(kBusyText)});
  });

  EXPECT_EQ(Ask(), Acknowledge(1));

  EXPECT_EQ(rival, Acknowledge(2));
  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksButton, Audit(kAcceptedText), kDeletes));
}

TEST_F(CheckClientAccept, AuditsEachRequestUnderItsOwnUserAndAddress) {
  AnswerShown(100, [&] {
    host.ForgetTranscript();
    AnswerPresent();
    EXPECT_EQ(Run("CoreUtilsCheckClientAccept", AskingFor("Paul", "paul", "198.51.100.9")),
              Acknowledge(2));
    ExpectAfterPresence({Audit(kBusyText, "paul", "198.51.100.9")});
  });

  EXPECT_EQ(Ask(), Acknowledge(1));

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksButton, Audit(kAcceptedText), kDeletes));
}

TEST_F(CheckClientAccept, IsNotClosedAsTheMessageThatIsShown) {
  AnswerShown(100, [&] {
    host.ForgetTranscript();
    EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
    EXPECT_THAT(TakeCalls(), IsEmpty());

    AnswerMessageShown();
    EXPECT_EQ(Code("CoreUtilsShowDialog", Texts({{"Message", "m"}})), kSuccess);
    EXPECT_THAT(TakeCalls(),
                ElementsAre(kAsksForPipe, MakesMessage("m"), kAsksInitialised, kShowsAndReturns));
  });

  EXPECT_EQ(Ask(), Acknowledge(1));

  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksButton, Audit(kAcceptedText), kDeletes));
}

TEST_F(CheckClientAccept, IsBusyAtOnceOnAnotherThread) {
  Outcome rival = kAborted;
  AnswerShown(100, [&] {
    AnswerPresent();
    ExpectNotToWait([&] { rival = Ask(); });
  });

  EXPECT_EQ(Ask(), Acknowledge(1));

  EXPECT_EQ(rival, Acknowledge(2));
}

TEST_F(CheckClientAccept, FindsNobodyLoggedOnAlsoWhileAQuestionIsBeingAsked) {
  Outcome rival = kAborted;
  AnswerShown(101, [&] {
    AnswerTexts();
    host.Answer("IsUserLogged", 0);
    rival = Ask();
  });

  EXPECT_EQ(Ask(), Acknowledge(0));

  EXPECT_EQ(rival, Acknowledge(3));
}

TEST_F(CheckClientAccept, FindsTheUserAbsentAlsoWhileAQuestionIsBeingAsked) {
  Outcome rival = kAborted;
  AnswerShown(101, [&] {
    AnswerTexts();
    host.Answer("IsUserLogged", 1);
    host.Answer("ProxyUtils::IsUserAbsent", 1);
    rival = Ask();
  });

  EXPECT_EQ(Ask(), Acknowledge(0));

  EXPECT_EQ(rival, Acknowledge(4));
}

TEST_F(CheckClientAccept, IsBusyAsSoonAsThereIsADialogAndUntilItIsDeleted) {
  std::vector<Outcome> rivals;
  const auto askMeanwhile = [&] {
    AnswerPresent();
    rivals.push_back(Ask());
  };
  AnswerDialogMade();
  host.AnswerDialog("SkinDialog::IsInitialised", 1, false, askMeanwhile);
  host.AnswerDialog("SkinDialog::Show", 0, false, askMeanwhile);
  host.AnswerDialog("SkinDialog::GetButtonClickedID", 100, false, askMeanwhile);

  EXPECT_EQ(Ask(), Acknowledge(1));

  EXPECT_THAT(rivals, ElementsAre(Acknowledge(2), Acknowledge(2), Acknowledge(2)));
}

/// Asks once more in the midst of a call.
class AskedWhile : public AcknowledgementTest {
 protected:
  void AskWithin(const std::string& line) {
    DoWithin(line, [this] {
      AnswerPresent();
      rival = Ask();
    });
  }

  Outcome rival = kAborted;
};

TEST_F(AskedWhile, TheDialogIsBeingDeletedIsBusy) {
  AnswerShown(100);
  AskWithin(kDeletes);

  EXPECT_EQ(Ask(), Acknowledge(1));

  EXPECT_EQ(rival, Acknowledge(2));
}

TEST_F(AskedWhile, ADialogThatFailedIsAuditedIsBusy) {
  AnswerPresent();
  host.AnswerDialog("SkinDialog", 0, true);
  AskWithin(Audit(kNoProxyText));

  EXPECT_EQ(Ask(), Acknowledge(0));

  EXPECT_EQ(rival, Acknowledge(2));
}

TEST_F(CheckClientAccept, AsksAgainWhenTheQuestionBeforeHasEnded) {
  for (const unsigned int button : {100U, 101U, 0U}) {
    AnswerShown(button);
    Ask();
  }
  AnswerShown(100);
  EXPECT_EQ(Ask(), Acknowledge(1));
}

// ---- what may go wrong ----

TEST_F(CheckClientAccept, RefusesWhenNoDialogCanBeMade) {
  AnswerPresent();
  host.AnswerDialog("SkinDialog", 0, true);

  EXPECT_EQ(Ask(), Acknowledge(0));

  ExpectAfterPresence({kMakesDialog, Audit(kNoProxyText), kDeletes});
}

TEST_F(CheckClientAccept, RefusesWhenTheProxyIsLostBeforeTheDialogIsShown) {
  for (const bool isInitialised : {false, true}) {
    AnswerDialogMade();
    host.AnswerDialog("SkinDialog::IsInitialised", isInitialised, true);

    EXPECT_EQ(Ask(), Acknowledge(0));

    ExpectAfterPresence(
        {kMakesDialog, Audit(kWaiting), kAsksInitialised, Audit(kNoProxyText), kDeletes});
  }
}

TEST_F(CheckClientAccept, WritesNothingMoreWhenTheDialogIsNotInitialised) {
  AnswerDialogMade();
  host.Answer("SkinDialog::IsInitialised", 0);

  EXPECT_EQ(Ask(), kAborted);

  ExpectAfterPresence({kMakesDialog, Audit(kWaiting), kAsksInitialised, kDeletes});
}

TEST_F(CheckClientAccept, RefusesWhenTheProxyIsLostWhileTheDialogIsShown) {
  AnswerDialogMade();
  host.Answer("SkinDialog::IsInitialised", 1);
  host.AnswerDialog("SkinDialog::Show", 0, true);

  EXPECT_EQ(Ask(), Acknowledge(0));

  ExpectAfterPresence(
      {kMakesDialog, Audit(kWaiting), kAsksInitialised, kShows, Audit(kNoProxyText), kDeletes});
}

TEST_F(CheckClientAccept, TakesNoButtonFromAProxyThatWasLost) {
  for (const unsigned int button : {100U, 101U, 0U}) {
    AnswerDialogMade();
    host.Answer("SkinDialog::IsInitialised", 1);
    host.Answer("SkinDialog::Show", 0);
    host.AnswerDialog("SkinDialog::GetButtonClickedID", button, true);

    EXPECT_EQ(Ask(), Acknowledge(0)) << button;

    ExpectAfterPresence({kMakesDialog, Audit(kWaiting), kAsksInitialised, kShows, kAsksButton,
                         Audit(kNoProxyText), kDeletes});
  }
}

TEST_F(CheckClientAccept, AsksAgainAfterEachFailure) {
  AnswerPresent();
  host.AnswerDialog("SkinDialog", 0, true);
  EXPECT_EQ(Ask(), Acknowledge(0));
  AnswerDialogMade();
  host.Answer("SkinDialog::IsInitialised", 0);
  EXPECT_EQ(Ask(), kAborted);
  AnswerDialogMade();
  host.Answer("SkinDialog::IsInitialised", 1);
  host.AnswerDialog("SkinDialog::Show", 0, true);
  EXPECT_EQ(Ask(), Acknowledge(0));

  AnswerShown(100);
  EXPECT_EQ(Ask(), Acknowledge(1));
}

// ---- several requests at once ----

/// The calls of a request up to the making of its dialog.
Lines StepsWithoutDialog() {
  return Join({kTranslations, {kAsksForPipe, kAsksWhoIsLogged, kAsksWhetherAbsent, kMakesDialog}});
}

/// The calls of a request from its dialog on.
Lines StepsWithDialog() {
  return {Audit(kWaiting), kAsksInitialised, kShows, kAsksButton, Audit(kAcceptedText), kDeletes};
}

TEST_F(CheckClientAccept, IsBusyOnAnotherThreadAtEachStepFromTheDialogOn) {
  for (const std::string& step : StepsWithDialog()) {
    Outcome rival = kAborted;
    AnswerShown(100);
    DoWithin(step, [&] {
      AnswerPresent();
      ExpectNotToWait([&] { rival = Ask(); });
    });

    EXPECT_EQ(Ask(), Acknowledge(1)) << step;

    EXPECT_EQ(rival, Acknowledge(2)) << step;
  }
}

// Whether one is pending is looked at before the dialog is made, and that there is one is noted
// after that: both of two requests get a dialog when they come at that moment.
TEST_F(CheckClientAccept, AsksOnAnotherThreadTooAtEachStepUpToTheDialog) {
  for (const std::string& step : StepsWithoutDialog()) {
    Outcome rival = kAborted;
    AnswerShown(100);
    DoWithin(step, [&] {
      AnswerShown(100);
      ExpectNotToWait([&] { rival = Ask(); });
    });

    EXPECT_EQ(Ask(), Acknowledge(1)) << step;

    EXPECT_EQ(rival, Acknowledge(1)) << step;
    const Lines calls = TakeCalls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), kShows), 2) << step;
    EXPECT_EQ(std::count(calls.begin(), calls.end(), kDeletes), 2) << step;
  }
}

/// A request that gets its dialog while another one makes its own, and ends before that.
class FirstOfTwo : public AcknowledgementTest {
 protected:
  /// Asks for both. `meanwhile` is called when the first has ended and the second is being shown.
  /// Returns the second's outcome.
  Outcome AskTwice(const std::function<void()>& meanwhile) {
    AnswerDialogMade();
    DoWithin(kMakesDialog, [this, meanwhile] {
      AnswerDialogMade();
      for (int i = 0; i < 2; ++i) host.Answer("SkinDialog::IsInitialised", 1);
      host.AnswerWork("SkinDialog::Show", 0, [this] {
        isShown_.set_value();
        EXPECT_TRUE(Comes(mayEnd_.get_future()));
      });
      host.AnswerWork("SkinDialog::Show", 0, [this, meanwhile] {
        EndFirst();
        meanwhile();
        host.Answer("SkinDialog::GetButtonClickedID", 100);
      });
      first_ = std::async(std::launch::async, [this] { return Ask(); });
      EXPECT_TRUE(Comes(isShown_.get_future()));
    });
    return Ask();
  }

 private:
  template <typename Value>
  static bool Comes(const std::future<Value>& future) {
    return future.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  }

  void EndFirst() {
    host.Answer("SkinDialog::GetButtonClickedID", 101);
    mayEnd_.set_value();
    ASSERT_TRUE(Comes(first_));
    EXPECT_EQ(first_.get(), Acknowledge(0));
    host.ForgetTranscript();
  }

  std::promise<void> isShown_;
  std::promise<void> mayEnd_;
  std::future<Outcome> first_;
};

TEST_F(FirstOfTwo, LeavesNothingToWithdrawWhenItEnds) {
  const auto withdraw = [this] {
    EXPECT_EQ(Withdraw(), (Outcome{kSuccess, "{}"}));
    EXPECT_THAT(TakeCalls(), IsEmpty());
  };
  EXPECT_EQ(AskTwice(withdraw), Acknowledge(1));
}

TEST_F(FirstOfTwo, LeavesNobodyBusyWhenItEnds) {
  const auto askOnceMore = [this] {
    AnswerShown(101);
    EXPECT_EQ(Ask(), Acknowledge(0));
    ExpectAfterPresence({kMakesDialog, Audit(kWaiting), kAsksInitialised, kShows, kAsksButton,
                         Audit(kRefusedText), kDeletes});
  };
  EXPECT_EQ(AskTwice(askOnceMore), Acknowledge(1));
}

// ---- the question ----

class AskedQuestion : public AcknowledgementTest {
 protected:
  /// The text of the dialog, as the transcript shows it.
  std::string Asked(const ZelString& translation, const char* adminName) {
    AnswerTexts(translation);
    host.Answer("IsUserLogged", 1);
    host.Answer("ProxyUtils::IsUserAbsent", 0);
    host.AnswerDialog("SkinDialog", 0, true);
    Run("CoreUtilsCheckClientAccept", AskingFor(adminName));
    const std::string start = "SkinDialog(null, ";
    const std::string end = ", \"Yes\", \"No\", \"\", 2, \"pipe\", false, \"\")";
    for (const std::string& line : TakeCalls()) {
      if (!line.starts_with(start)) continue;
      EXPECT_TRUE(line.ends_with(end)) << line;
      return line.substr(start.size(), line.size() - start.size() - end.size());
    }
    return "no dialog";
  }
};

TEST_F(AskedQuestion, NamesTheAdministratorWhereverItSaysSo) {
  EXPECT_EQ(Asked("{AdminName}, {AdminName}{AdminName}.", "Anna"), "\"Anna, AnnaAnna.\"");
}

TEST_F(AskedQuestion, NamesTheAdministratorInAnyCase) {
  EXPECT_EQ(Asked("{ADMINNAME} {adminname} {AdminNam}", "Anna"), "\"Anna Anna {AdminNam}\"");
}

TEST_F(AskedQuestion, IsUnchangedWhereItNamesNobody) {
  EXPECT_EQ(Asked("May somebody see your screen?", "Anna"), "\"May somebody see your screen?\"");
  EXPECT_EQ(Asked("", "Anna"), "\"\"");
}

TEST_F(AskedQuestion, HasAGapForANameThatIsEmpty) {
  EXPECT_EQ(Asked("May {AdminName} see it?", ""), "\"May  see it?\"");
}

TEST_F(AskedQuestion, TakesTheNameAsItIs) {
  EXPECT_EQ(Asked("<{AdminName}>", "100% %S \"q\" &amp; <b>\n{AdminName}"),
            "\"<100% %S \"q\" &amp; <b>\\x0a{AdminName}>\"");
}

TEST_F(AskedQuestion, TakesTheTranslationAsItIs) {
  EXPECT_EQ(Asked("100% %S \"q\"\r\n\t{AdminName}", "Anna"),
            "\"100% %S \"q\"\\x0d\\x0a\\x09"
            "Anna\"");
}

TEST_F(CheckClientAccept, PassesTheLabelsOnAsTheyAre) {
  host.AnswerText("ZelAgentGetTranslation", "May {AdminName}?");
  host.AnswerText("ZelAgentGetTranslation", "{AdminName} &Ja %d");
  host.AnswerText("ZelAgentGetTranslation", "");
  AnswerPipe();
  host.Answer("IsUserLogged", 1);
  host.Answer("ProxyUtils::IsUserAbsent", 0);
  host.AnswerDialog("SkinDialog", 0, true);

  EXPECT_EQ(Ask(), Acknowledge(0));

  ExpectAfterPresence(
      {"SkinDialog(null, \"May Anna Admin?\", \"{AdminName} &Ja %d\", \"\", "
       "\"\", 2, \"pipe\", false, \"\")",
       Audit(kNoProxyText), kDeletes});
}

// ---- the container ----

TEST_F(CheckClientAccept, ClearsTheContainerBetweenTheTranslationsAndThePipe) {
  AnswerShown(100);
  // The answer is written between the last audit and the end of the dialog.
  EXPECT_THAT(KeysAtEachCall("CoreUtilsCheckClientAccept", AskingFor("Anna Admin")),
              ElementsAre(4, 4, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1));
}

TEST_F(CheckClientAccept, AuditsTheRefusalBeforeItReportsIt) {
  AnswerShown(101);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsCheckClientAccept", AskingFor("Anna Admin")),
              ElementsAre(4, 4, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1));
}

TEST_F(CheckClientAccept, AuditsThatNobodyCouldBeAskedAfterItHasSaidSo) {
  AnswerTexts();
  host.Answer("IsUserLogged", 0);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsCheckClientAccept", AskingFor("Anna Admin")),
              ElementsAre(4, 4, 4, 0, 0, 1));
}

TEST_F(CheckClientAccept, AuditsThatTheUserIsAbsentAfterItHasSaidSo) {
  AnswerTexts();
  host.Answer("IsUserLogged", 1);
  host.Answer("ProxyUtils::IsUserAbsent", 1);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsCheckClientAccept", AskingFor("Anna Admin")),
              ElementsAre(4, 4, 4, 0, 0, 0, 1));
}

TEST_F(CheckClientAccept, AuditsThatAnotherQuestionIsBeingAskedAfterItHasSaidSo) {
  AnswerShown(100, [&] {
    AnswerPresent();
    EXPECT_THAT(KeysAtEachCall("CoreUtilsCheckClientAccept", AskingFor("Anna Admin")),
                ElementsAre(4, 4, 4, 0, 0, 0, 1));
  });
  EXPECT_EQ(Ask(), Acknowledge(1));
}

TEST_F(CheckClientAccept, AuditsThatThereIsNoProxyBeforeItRefuses) {
  AnswerPresent();
  host.AnswerDialog("SkinDialog", 0, true);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsCheckClientAccept", AskingFor("Anna Admin")),
              ElementsAre(4, 4, 4, 0, 0, 0, 0, 0, 1));
}

TEST_F(CheckClientAccept, KeepsNoAnswerThatWasSentIn) {
  ZelContainer params = AskingFor("Anna Admin");
  params.SetInt32("Acknowledge", 1, kNoIndex);
  AnswerShown(0);
  EXPECT_EQ(Run("CoreUtilsCheckClientAccept", params), kAborted);
}

TEST_F(CheckClientAccept, TakesAbsentParametersAsEmpty) {
  AnswerTexts();
  host.Answer("IsUserLogged", 0);

  EXPECT_EQ(Run("CoreUtilsCheckClientAccept", {}), Acknowledge(3));

  EXPECT_EQ(host.Transcript().back(),
            "Audit \"\", \"\", \"Connection impossible nobody logged, class Direct Access\"");
}

TEST_F(CheckClientAccept, TakesParametersOfOtherTypesAsEmpty) {
  ZelContainer params = Texts({{"HttpProtocolRequestInfo", "192.0.2.7"}});
  params.SetInt32("DACurrentConsoleUser", 1, kNoIndex);
  params.SetString("DisplayAdminName", "Anna", 0);
  AnswerPresent();
  host.AnswerDialog("SkinDialog", 0, true);

  EXPECT_EQ(Run("CoreUtilsCheckClientAccept", params), Acknowledge(0));

  ExpectAfterPresence(
      {"SkinDialog(null, \"May  see your screen?\", \"Yes\", \"No\", \"\", 2, \"pipe\", false, "
       "\"\")",
       "Audit \"\", \"\", \"connection refused: no proxy on host, so user cannot be asked, class "
       "Direct Access\"",
       kDeletes});
}

// ---- CoreUtilsDestroyAckPopup ----

TEST_F(DestroyAckPopup, DoesNothingWhenNothingIsAsked) {
  EXPECT_EQ(Run("CoreUtilsDestroyAckPopup", Texts({{"Other", "x"}})),
            (Outcome{kSuccess, "{Other: String \"x\"}"}));
  EXPECT_THAT(host.Transcript(), IsEmpty());
}

TEST_F(DestroyAckPopup, ClosesTheDialogAndTheOneThatAskedReportsIt) {
  Outcome withdrawn{kFailure, ""};
  AnswerShown(0, [&] {
    host.ForgetTranscript();
    host.Answer("SkinDialog::Close", 0);
    withdrawn = Run("CoreUtilsDestroyAckPopup", Texts({{"Other", "x"}}));
    EXPECT_THAT(TakeCalls(), ElementsAre(kCloses));
  });

  EXPECT_EQ(Ask(), kAborted);

  EXPECT_EQ(withdrawn, (Outcome{kSuccess, "{Other: String \"x\"}"}));
  EXPECT_THAT(TakeCalls(), ElementsAre(kAsksButton, Audit(kAbortedText), kDeletes));
}

TEST_F(DestroyAckPopup, ReachesTheDialogFromAnotherThread) {
  AnswerShown(0, [&] {
    host.ForgetTranscript();
    host.Answer("SkinDialog::Close", 0);
    ExpectNotToWait([this] { EXPECT_EQ(Withdraw(), (Outcome{kSuccess, "{}"})); });
    EXPECT_THAT(TakeCalls(), ElementsAre(kCloses));
  });

  EXPECT_EQ(Ask(), kAborted);
}

TEST_F(DestroyAckPopup, DoesNothingWhenTheQuestionHasEnded) {
  for (const unsigned int button : {100U, 0U}) {
    AnswerShown(button);
    Ask();
    host.ForgetTranscript();

    EXPECT_EQ(Withdraw(), (Outcome{kSuccess, "{}"}));

    EXPECT_THAT(host.Transcript(), IsEmpty());
  }
}

TEST_F(DestroyAckPopup, IgnoresThatTheProxyIsLost) {
  AnswerShown(100, [&] {
    host.AnswerDialog("SkinDialog::Close", 0, true);
    EXPECT_EQ(Withdraw(), (Outcome{kSuccess, "{}"}));
  });

  // What the user said before still holds.
  EXPECT_EQ(Ask(), Acknowledge(1));
}

TEST_F(DestroyAckPopup, ClosesAsOftenAsItIsAsked) {
  AnswerShown(0, [&] {
    host.ForgetTranscript();
    for (int i = 0; i < 2; ++i) {
      host.Answer("SkinDialog::Close", 0);
      EXPECT_EQ(Withdraw(), (Outcome{kSuccess, "{}"}));
    }
    EXPECT_THAT(TakeCalls(), ElementsAre(kCloses, kCloses));
  });
  EXPECT_EQ(Ask(), kAborted);
}

TEST_F(DestroyAckPopup, FindsTheDialogFromItsMakingToItsEnd) {
  const auto withdraw = [this] {
    host.Answer("SkinDialog::Close", 0);
    Withdraw();
  };
  AnswerDialogMade();
  host.AnswerDialog("SkinDialog::IsInitialised", 1, false, withdraw);
  host.AnswerDialog("SkinDialog::Show", 0, false, withdraw);
  host.AnswerDialog("SkinDialog::GetButtonClickedID", 0, false, withdraw);

  EXPECT_EQ(Ask(), kAborted);

  ExpectAfterPresence({kMakesDialog, Audit(kWaiting), kAsksInitialised, kCloses, kShows, kCloses,
                       kAsksButton, kCloses, Audit(kAbortedText), kDeletes});
}

TEST_F(DestroyAckPopup, FindsNothingWhileTheDialogIsBeingMade) {
  AnswerPresent();
  host.AnswerDialog("SkinDialog", 0, false, [this] { Withdraw(); });
  host.Answer("SkinDialog::IsInitialised", 0);

  EXPECT_EQ(Ask(), kAborted);

  ExpectAfterPresence({kMakesDialog, Audit(kWaiting), kAsksInitialised, kDeletes});
}

/// Withdraws from another thread in the midst of a call.
class WithdrawnWhile : public AcknowledgementTest {
 protected:
  /// Asks meanwhile, and is answered with consent. Returns the calls that the withdrawal makes.
  Lines CallsWithin(const std::string& step) {
    Lines calls;
    AnswerShown(100);
    DoWithin(step, [&] {
      const size_t before = host.Transcript().size();
      ExpectNotToWait([this] { EXPECT_EQ(Withdraw(), (Outcome{kSuccess, "{}"})); });
      calls.assign(host.Transcript().begin() + static_cast<ptrdiff_t>(before),
                   host.Transcript().end());
    });
    EXPECT_EQ(Ask(), Acknowledge(1)) << step;
    return calls;
  }
};

TEST_F(WithdrawnWhile, ThereIsADialogItReachesThatAtEachStep) {
  for (const std::string& step : StepsWithDialog()) {
    host.Answer("SkinDialog::Close", 0);
    EXPECT_THAT(CallsWithin(step), ElementsAre(kCloses)) << step;
  }
}

TEST_F(WithdrawnWhile, ThereIsNoDialogYetItDoesNothingAtEachStep) {
  for (const std::string& step : StepsWithoutDialog())
    EXPECT_THAT(CallsWithin(step), IsEmpty()) << step;
}

TEST_F(DestroyAckPopup, LeavesOtherDialogsAlone) {
  AnswerMessageShown();
  EXPECT_EQ(Code("CoreUtilsShowDialog"), kSuccess);
  host.ForgetTranscript();

  EXPECT_EQ(Withdraw(), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(), IsEmpty());
}

}  // namespace
