#include <string>
#include <vector>

#include "tests/contract/user_test.h"

namespace {

const std::string kShowsAndWaits = "SkinDialog::Show(true, false)";
const std::string kLogsNotDisplayed = "Error \"Cannot display the message box !\"";

class DialogTest : public UserTest {
 protected:
  void AnswerMade() {
    AnswerPipe();
    host.Answer("SkinDialog", 0);
  }
  void AnswerInitialised() {
    AnswerMade();
    host.Answer("SkinDialog::IsInitialised", 1);
  }
  void ShowMessage(const char* text) {
    AnswerMessageShown();
    EXPECT_EQ(Run("CoreUtilsShowDialog", Texts({{"Message", text}})), (Outcome{kSuccess, "{}"}));
    host.ForgetTranscript();
  }
};

using ShowDialog = DialogTest;
using CloseDialog = DialogTest;

// ---- CoreUtilsShowDialog ----

TEST_F(ShowDialog, ShowsAMessageWithoutButtonsAndDoesNotWait) {
  AnswerMessageShown();

  EXPECT_EQ(Run("CoreUtilsShowDialog", Texts({{"Message", "Back at noon"}, {"Other", "x"}})),
            (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre(kAsksForPipe, MakesMessage("Back at noon"),
                                             kAsksInitialised, kShowsAndReturns));
}

TEST_F(ShowDialog, ClosesAndDeletesTheMessageBeforeItMakesTheNext) {
  ShowMessage("first");
  host.Answer("SkinDialog::Close", 0);
  AnswerMessageShown();

  EXPECT_EQ(Run("CoreUtilsShowDialog", Texts({{"Message", "second"}})), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kCloses, kDeletes, kAsksForPipe, MakesMessage("second"), kAsksInitialised,
                          kShowsAndReturns));
}

TEST_F(ShowDialog, GoesOnWhenTheMessageBeforeCannotBeClosed) {
  ShowMessage("first");
  host.AnswerDialog("SkinDialog::Close", 0, true);
  AnswerMessageShown();

  EXPECT_EQ(Code("CoreUtilsShowDialog", Texts({{"Message", "second"}})), kSuccess);

  // The error of closing does not count for the new one.
  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kCloses, "Error \"Cannot reach the proxy to close the previous dialog box !\"",
                  kDeletes, kAsksForPipe, MakesMessage("second"), kAsksInitialised,
                  kShowsAndReturns));
}

TEST_F(ShowDialog, ShowsAnEmptyMessageWhenThereIsNone) {
  AnswerMessageShown();
  EXPECT_EQ(Run("CoreUtilsShowDialog", {}), (Outcome{kSuccess, "{}"}));
  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAsksForPipe, MakesMessage(""), kAsksInitialised, kShowsAndReturns));
}

TEST_F(ShowDialog, TakesAMessageOfAnotherTypeAsNone) {
  ZelContainer params;
  params.SetInt32("Message", 7, kNoIndex);
  AnswerMessageShown();
  EXPECT_EQ(Run("CoreUtilsShowDialog", params), (Outcome{kSuccess, "{}"}));
  EXPECT_EQ(host.Transcript().at(1), MakesMessage(""));
}

TEST_F(ShowDialog, PassesTheMessageOnAsItIs) {
  AnswerMessageShown();
  Run("CoreUtilsShowDialog", Texts({{"Message", "100% %S \"q\" &x <b>\r\n\xC3\xBC"}}));
  EXPECT_EQ(host.Transcript().at(1), MakesMessage("100% %S \"q\" &x <b>\\x0d\\x0a\xC3\xBC"));
}

TEST_F(ShowDialog, HasClearedTheContainerBeforeItDoesAnything) {
  ShowMessage("first");
  AnswerPipe();
  host.Answer("SkinDialog::Close", 0);
  host.AnswerDialog("SkinDialog", 0, true);
  // It closes, deletes, asks for the pipe, makes the dialog and logs.
  EXPECT_THAT(KeysAtEachCall("CoreUtilsShowDialog", Texts({{"Message", "m"}, {"Other", "x"}})),
              ElementsAre(0, 0, 0, 0, 0));
}

TEST_F(ShowDialog, LogsThatNoDialogCouldBeMade) {
  AnswerPipe();
  host.AnswerDialog("SkinDialog", 0, true);

  EXPECT_EQ(Run("CoreUtilsShowDialog", {}), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre(kAsksForPipe, MakesMessage(""), kLogsNotDisplayed));
}

TEST_F(ShowDialog, LogsThatTheDialogIsNotInitialised) {
  const std::vector<std::pair<bool, bool>> answersAndErrors = {
      {false, false}, {false, true}, {true, true}};
  for (const auto& [isInitialised, setsError] : answersAndErrors) {
    AnswerMade();
    host.AnswerDialog("SkinDialog::IsInitialised", isInitialised, setsError);

    EXPECT_EQ(Run("CoreUtilsShowDialog", {}), (Outcome{kSuccess, "{}"}));

    EXPECT_THAT(TakeCalls(),
                ElementsAre(kAsksForPipe, MakesMessage(""), kAsksInitialised, kLogsNotDisplayed));
    host.Answer("SkinDialog::Close", 0);
    EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
    host.ForgetTranscript();
  }
}

TEST_F(ShowDialog, SaysNothingWhenTheProxyIsLostWhileItShows) {
  AnswerInitialised();
  host.AnswerDialog("SkinDialog::Show", 0, true);

  EXPECT_EQ(Run("CoreUtilsShowDialog", {}), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAsksForPipe, MakesMessage(""), kAsksInitialised, kShowsAndReturns));
}

TEST_F(ShowDialog, GoesOnWithoutAPipeNameAndAsksForItEachTime) {
  const auto shown = [this](const std::string& pipe) {
    host.AnswerText("ZelAgentGetProxyPipeName", pipe);
    host.Answer("SkinDialog", 0);
    host.Answer("SkinDialog::IsInitialised", 1);
    host.Answer("SkinDialog::Show", 0);
    EXPECT_EQ(Run("CoreUtilsShowDialog", {}), (Outcome{kSuccess, "{}"}));
    return TakeCalls();
  };
  const auto showsAt = [](const std::string& pipe) {
    return Lines{kAsksForPipe,
                 "SkinDialog(null, \"\", \"\", \"\", \"\", 0, \"" + pipe + "\", false, \"\")",
                 kAsksInitialised, kShowsAndReturns};
  };

  EXPECT_EQ(shown(""), showsAt(""));
  host.Answer("SkinDialog::Close", 0);
  EXPECT_EQ(shown("second pipe"), Join({{kCloses, kDeletes}, showsAt("second pipe")}));
}

TEST_F(ShowDialog, KeepsADialogThatFailedUntilTheNext) {
  AnswerPipe();
  host.AnswerDialog("SkinDialog", 0, true);
  EXPECT_EQ(Code("CoreUtilsShowDialog"), kSuccess);
  AnswerMade();
  host.Answer("SkinDialog::IsInitialised", 0);
  host.ForgetTranscript();
  host.Answer("SkinDialog::Close", 0);

  EXPECT_EQ(Code("CoreUtilsShowDialog"), kSuccess);

  EXPECT_THAT(TakeCalls(), ElementsAre(kCloses, kDeletes, kAsksForPipe, MakesMessage(""),
                                       kAsksInitialised, kLogsNotDisplayed));
  host.Answer("SkinDialog::Close", 0);
  EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
  EXPECT_THAT(host.Transcript(), ElementsAre(kCloses, kDeletes));
}

TEST_F(ShowDialog, StaysOverTheEndOfTheModule) {
  ShowMessage("m");

  EXPECT_EQ(ModuleMain(5, 0, nullptr), 1u);
  EXPECT_EQ(ModuleMain(2, 0, nullptr), 1u);

  EXPECT_THAT(TakeCalls(), ElementsAre("Trace \"Module Cleanup starting\"",
                                       "Trace \"Module Unregister starting\""));
  host.Answer("SkinDialog::Close", 0);
  EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
  EXPECT_THAT(TakeCalls(), ElementsAre(kCloses, kDeletes));
}

TEST_F(ShowDialog, DoesNotWaitForALock) {
  AnswerPipe();
  host.AnswerWork("ProxyDesktopLockManager::Lock", 1,
                  [this] { ExpectNotToWait([this] { ShowMessage("m"); }); });
  AnswerPipe();
  host.AnswerText("ZelAgentGetTranslation", "Locked");
  host.Answer("ProxyDesktopLockManager::SetMessage", 1);

  EXPECT_EQ(Code("CoreUtilsLockDesktop"), kSuccess);
}

// ---- CoreUtilsCloseDialog ----

TEST_F(CloseDialog, DoesNothingWhenNothingIsShown) {
  EXPECT_EQ(Run("CoreUtilsCloseDialog", Texts({{"Other", "x"}})),
            (Outcome{kSuccess, "{Other: String \"x\"}"}));
  EXPECT_THAT(host.Transcript(), IsEmpty());
}

TEST_F(CloseDialog, ClosesAndDeletesTheMessageAndLeavesTheContainerAsItWas) {
  ShowMessage("m");
  host.Answer("SkinDialog::Close", 0);

  EXPECT_EQ(Run("CoreUtilsCloseDialog", Texts({{"Other", "x"}})),
            (Outcome{kSuccess, "{Other: String \"x\"}"}));
  EXPECT_THAT(TakeCalls(), ElementsAre(kCloses, kDeletes));

  EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
  EXPECT_THAT(host.Transcript(), IsEmpty());
}

TEST_F(CloseDialog, DeletesAMessageThatItCannotClose) {
  ShowMessage("m");
  host.AnswerDialog("SkinDialog::Close", 0, true);

  EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
  EXPECT_THAT(
      TakeCalls(),
      ElementsAre(kCloses, "Error \"Cannot reach the proxy to close the dialog box !\"", kDeletes));

  EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
  EXPECT_THAT(host.Transcript(), IsEmpty());
}

// ---- CoreUtilsAdvanceDialog ----

class AdvanceDialog : public DialogTest {
 protected:
  /// A dialog that runs `meanwhile` while it is shown and ends with `button`.
  void AnswerEnded(unsigned int button, std::function<void()> meanwhile = {}) {
    AnswerInitialised();
    host.AnswerWork("SkinDialog::Show", 0, std::move(meanwhile));
    host.Answer("SkinDialog::GetButtonClickedID", button);
  }
  /// What the dialog is made with, from its text on, as the transcript shows it.
  std::string Made(const ZelContainer& params) {
    AnswerPipe();
    host.AnswerDialog("SkinDialog", 0, true);
    EXPECT_EQ(Run("CoreUtilsAdvanceDialog", params), (Outcome{kSuccess, "{Result: Int32 0}"}));
    return TakeCalls().at(1);
  }
  /// The option string, where all else of the dialog is empty but for its text.
  std::string Options(const ZelContainer& params, const std::string& text = "") {
    const std::string start =
        "SkinDialog(null, \"" + text + "\", \"\", \"\", \"\", 1, \"pipe\", false, \"";
    const std::string made = Made(params);
    EXPECT_TRUE(made.starts_with(start)) << made;
    EXPECT_TRUE(made.ends_with("\")")) << made;
    return made.substr(start.size(), made.size() - start.size() - 2);
  }
  /// What the dialog is made with after its text and up to its options.
  std::string Buttons(const ZelContainer& params) {
    const std::string start = "SkinDialog(null, \"\", ";
    const std::string end = ", \"pipe\", false, \"\")";
    const std::string made = Made(params);
    EXPECT_TRUE(made.starts_with(start) && made.ends_with(end)) << made;
    return made.substr(start.size(), made.size() - start.size() - end.size());
  }
  Outcome Answered(unsigned int button, const ZelContainer& params) {
    AnswerEnded(button);
    return Run("CoreUtilsAdvanceDialog", params);
  }
};

ZelContainer Number(const char* key, int32_t value) {
  ZelContainer params;
  params.SetInt32(key, value, kNoIndex);
  return params;
}

Outcome Result(int value) {
  return {kSuccess, "{Result: Int32 " + std::to_string(value) + "}"};
}

ZelContainer AllKeys() {
  ZelContainer params = Texts({{"Title", "The title"},
                               {"Path", "C:\\a b.png"},
                               {"ButtonCancel", "Later"},
                               {"ButtonOK", "Now"},
                               {"Message", "Restart?"},
                               {"Other", "x"}});
  params.SetInt32("TopMost", 1, kNoIndex);
  params.SetInt32("TimeOut", 60, kNoIndex);
  return params;
}

const ZelContainer kBothLabels = Texts({{"ButtonOK", "Now"}, {"ButtonCancel", "Later"}});
const ZelContainer kOkLabel = Texts({{"ButtonOK", "Now"}});
const ZelContainer kCancelLabel = Texts({{"ButtonCancel", "Later"}});

TEST_F(AdvanceDialog, ShowsTheDialogAndWaitsForTheUser) {
  AnswerEnded(100);

  EXPECT_EQ(Run("CoreUtilsAdvanceDialog", AllKeys()), Result(1));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kAsksForPipe,
                  "SkinDialog(null, \"Restart?\", \"Now\", \"Later\", \"\", 2, \"pipe\", false, \" "
                  "-InformationPopupTimeOut 60 -InformationPopup \"Restart?\" -ImagePath \"C:\\a "
                  "b.png\" -n \"The title\" -TopMost 1\")",
                  kAsksInitialised, kShowsAndWaits, kAsksButton, kDeletes));
}

TEST_F(AdvanceDialog, PassesEmptyOptionsWithoutAnyKey) {
  EXPECT_EQ(Made({}), "SkinDialog(null, \"\", \"\", \"\", \"\", 1, \"pipe\", false, \"\")");
}

TEST_F(AdvanceDialog, MakesAnOptionOfEachKeyAlone) {
  EXPECT_EQ(Options(Number("TimeOut", 5)), " -InformationPopupTimeOut 5");
  EXPECT_EQ(Options(Texts({{"Message", "m"}}), "m"), " -InformationPopup \"m\"");
  EXPECT_EQ(Options(Texts({{"Path", "/a.png"}})), " -ImagePath \"/a.png\"");
  EXPECT_EQ(Options(Texts({{"Title", "t"}})), " -n \"t\"");
  EXPECT_EQ(Options(Number("TopMost", 1)), " -TopMost 1");
}

TEST_F(AdvanceDialog, MakesNoOptionOfTheLabels) {
  EXPECT_EQ(Buttons(kBothLabels), "\"Now\", \"Later\", \"\", 2");
}

TEST_F(AdvanceDialog, MakesOptionsOfKeysThatAreEmptyOrZero) {
  ZelContainer params = Texts({{"Message", ""}, {"Path", ""}, {"Title", ""}});
  params.SetInt32("TimeOut", 0, kNoIndex);
  params.SetInt32("TopMost", 0, kNoIndex);
  EXPECT_EQ(
      Options(params),
      " -InformationPopupTimeOut 0 -InformationPopup \"\" -ImagePath \"\" -n \"\" -TopMost 0");
}

TEST_F(AdvanceDialog, FormatsNumbersAsUnsignedDecimals) {
  const std::vector<std::pair<int32_t, std::string>> numbers = {
      {-1, "4294967295"},
      {INT32_MIN, "2147483648"},
      {INT32_MAX, "2147483647"},
      {10, "10"},
  };
  for (const auto& [number, text] : numbers) {
    EXPECT_EQ(Options(Number("TimeOut", number)), " -InformationPopupTimeOut " + text);
    EXPECT_EQ(Options(Number("TopMost", number)), " -TopMost " + text);
  }
}

ZelContainer WideNumber(const char* key, int64_t value) {
  ZelContainer params;
  params.SetInt64(key, value, kNoIndex);
  return params;
}

TEST_F(AdvanceDialog, TakesATimeOutThatFitsThirtyTwoBitsWithASign) {
  EXPECT_EQ(Options(WideNumber("TimeOut", INT32_MAX)), " -InformationPopupTimeOut 2147483647");
  EXPECT_EQ(Options(WideNumber("TimeOut", INT32_MIN)), " -InformationPopupTimeOut 2147483648");
  EXPECT_EQ(Options(WideNumber("TimeOut", -1)), " -InformationPopupTimeOut 4294967295");
  for (const int64_t beyond : {int64_t{INT32_MAX} + 1, int64_t{UINT32_MAX}, int64_t{INT32_MIN} - 1})
    EXPECT_EQ(Options(WideNumber("TimeOut", beyond)), "") << beyond;
}

TEST_F(AdvanceDialog, TakesATopMostThatFitsThirtyTwoBitsWithoutASign) {
  EXPECT_EQ(Options(WideNumber("TopMost", UINT32_MAX)), " -TopMost 4294967295");
  EXPECT_EQ(Options(WideNumber("TopMost", int64_t{UINT32_MAX} + 1)), "");
}

TEST_F(AdvanceDialog, TakesKeysOfOtherTypesAndListsAsAbsent) {
  ZelContainer params = Texts({{"TimeOut", "5"}, {"TopMost", "1"}});
  for (const char* key : {"Message", "ButtonOK", "ButtonCancel", "Path"}) {
    params.SetInt32(key, 1, kNoIndex);
  }
  params.SetString("Title", "t", 0);
  EXPECT_EQ(Options(params), "");
}

TEST_F(AdvanceDialog, PutsTextsIntoTheOptionsAsTheyAre) {
  constexpr const char* kText = "a \"q\" \\ 100% %S %u -TopMost 1\r\n\xC3\xBC";
  constexpr const char* kShown = "a \"q\" \\ 100% %S %u -TopMost 1\\x0d\\x0a\xC3\xBC";
  const std::string quoted = "\"" + std::string(kShown) + "\"";
  EXPECT_EQ(Options(Texts({{"Message", kText}}), kShown), " -InformationPopup " + quoted);
  EXPECT_EQ(Options(Texts({{"Path", kText}})), " -ImagePath " + quoted);
  EXPECT_EQ(Options(Texts({{"Title", kText}})), " -n " + quoted);
}

TEST_F(AdvanceDialog, TakesLongTexts) {
  const std::string text(10000, 'x');
  EXPECT_EQ(Options(Texts({{"Message", text.c_str()}}), text),
            " -InformationPopup \"" + text + "\"");
}

TEST_F(AdvanceDialog, HasOneButtonWithTheOnlyLabelOrNone) {
  EXPECT_EQ(Buttons({}), "\"\", \"\", \"\", 1");
  EXPECT_EQ(Buttons(kOkLabel), "\"Now\", \"\", \"Now\", 1");
  EXPECT_EQ(Buttons(kCancelLabel), "\"\", \"Later\", \"Later\", 1");
}

TEST_F(AdvanceDialog, TakesAnEmptyLabelAsNone) {
  EXPECT_EQ(Buttons(Texts({{"ButtonOK", ""}, {"ButtonCancel", "Later"}})),
            "\"\", \"Later\", \"Later\", 1");
  EXPECT_EQ(Buttons(Texts({{"ButtonOK", "Now"}, {"ButtonCancel", ""}})),
            "\"Now\", \"\", \"Now\", 1");
}

TEST_F(AdvanceDialog, TakesABlankLabelAsALabel) {
  EXPECT_EQ(Buttons(Texts({{"ButtonOK", " "}, {"ButtonCancel", " "}})), "\" \", \" \", \"\", 2");
}

TEST_F(AdvanceDialog, ReportsTheButtonOfTwo) {
  EXPECT_EQ(Answered(100, kBothLabels), Result(1));
  EXPECT_EQ(Answered(101, kBothLabels), Result(0));
  EXPECT_EQ(Answered(102, kBothLabels), Result(0));
}

TEST_F(AdvanceDialog, ReportsTheOnlyButtonAsConsent) {
  for (const ZelContainer& params : {ZelContainer(), kOkLabel, kCancelLabel}) {
    EXPECT_EQ(Answered(102, params), Result(1));
    EXPECT_EQ(Answered(100, params), Result(1));
    EXPECT_EQ(Answered(101, params), Result(0));
  }
}

TEST_F(AdvanceDialog, ReportsEveryOtherEndAsTwo) {
  for (const unsigned int button : {0U, 1U, 99U, 103U, 356U, ~0U}) {
    for (const ZelContainer& params : {ZelContainer(), kBothLabels}) {
      EXPECT_EQ(Answered(button, params), Result(2)) << button;
    }
  }
}

TEST_F(AdvanceDialog, LogsNothingHoweverItEnds) {
  const std::vector<std::pair<ZelContainer, std::string>> labels = {
      {{}, "\"\", \"\", \"\", 1"}, {kBothLabels, "\"Now\", \"Later\", \"\", 2"}};
  for (const auto& [params, shownLabels] : labels) {
    for (const unsigned int button : {100U, 101U, 102U, 0U}) {
      Answered(button, params);

      EXPECT_THAT(TakeCalls(),
                  ElementsAre(kAsksForPipe,
                              "SkinDialog(null, \"\", " + shownLabels + ", \"pipe\", false, \"\")",
                              kAsksInitialised, kShowsAndWaits, kAsksButton, kDeletes))
          << button;
    }
  }
}

TEST_F(AdvanceDialog, KeepsNoResultThatWasSentIn) {
  ZelContainer params;
  params.SetInt32("Result", 1, kNoIndex);
  EXPECT_EQ(Answered(101, params), Result(0));
  AnswerMade();
  host.Answer("SkinDialog::IsInitialised", 0);
  EXPECT_EQ(Run("CoreUtilsAdvanceDialog", params), Result(0));
}

TEST_F(AdvanceDialog, HasClearedTheContainerBeforeItDoesAnythingAndWritesTheResultBeforeItDeletes) {
  AnswerEnded(100);
  EXPECT_THAT(KeysAtEachCall("CoreUtilsAdvanceDialog", AllKeys()), ElementsAre(0, 0, 0, 0, 0, 1));
}

TEST_F(AdvanceDialog, WritesTheResultOfAFailureAfterItHasDeletedTheDialog) {
  constexpr const char* kAction = "CoreUtilsAdvanceDialog";
  AnswerPipe();
  host.AnswerDialog("SkinDialog", 0, true);
  EXPECT_THAT(KeysAtEachCall(kAction, AllKeys()), ElementsAre(0, 0, 0));

  AnswerMade();
  host.Answer("SkinDialog::IsInitialised", 0);
  EXPECT_THAT(KeysAtEachCall(kAction, AllKeys()), ElementsAre(0, 0, 0, 0));

  AnswerInitialised();
  host.AnswerDialog("SkinDialog::Show", 0, true);
  EXPECT_THAT(KeysAtEachCall(kAction, AllKeys()), ElementsAre(0, 0, 0, 0, 0));

  AnswerInitialised();
  host.Answer("SkinDialog::Show", 0);
  host.AnswerDialog("SkinDialog::GetButtonClickedID", 100, true);
  EXPECT_THAT(KeysAtEachCall(kAction, AllKeys()), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(AdvanceDialog, GoesOnWithoutAPipeNameAndAsksForItEachTime) {
  for (const std::string pipe : {"", "second pipe"}) {
    host.AnswerText("ZelAgentGetProxyPipeName", pipe);
    host.Answer("SkinDialog", 0);
    host.Answer("SkinDialog::IsInitialised", 1);
    host.Answer("SkinDialog::Show", 0);
    host.Answer("SkinDialog::GetButtonClickedID", 102);

    EXPECT_EQ(Run("CoreUtilsAdvanceDialog", {}), Result(1));

    EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe,
                                         "SkinDialog(null, \"\", \"\", \"\", \"\", 1, \"" + pipe +
                                             "\", false, \"\")",
                                         kAsksInitialised, kShowsAndWaits, kAsksButton, kDeletes));
  }
}

// Nothing is logged below: the transcripts are whole.

TEST_F(AdvanceDialog, ReportsZeroWhenNoDialogCanBeMade) {
  AnswerPipe();
  host.AnswerDialog("SkinDialog", 0, true);

  EXPECT_EQ(Run("CoreUtilsAdvanceDialog", kOkLabel), Result(0));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAsksForPipe,
                          "SkinDialog(null, \"\", \"Now\", \"\", \"Now\", 1, \"pipe\", false, "
                          "\"\")",
                          kDeletes));
}

TEST_F(AdvanceDialog, ReportsZeroWhenTheDialogIsNotInitialised) {
  const std::vector<std::pair<bool, bool>> answersAndErrors = {
      {false, false}, {false, true}, {true, true}};
  for (const auto& [isInitialised, setsError] : answersAndErrors) {
    AnswerMade();
    host.AnswerDialog("SkinDialog::IsInitialised", isInitialised, setsError);

    EXPECT_EQ(Run("CoreUtilsAdvanceDialog", {}), Result(0));

    EXPECT_THAT(TakeCalls(), ElementsAre(kAsksForPipe,
                                         "SkinDialog(null, \"\", \"\", \"\", \"\", 1, \"pipe\", "
                                         "false, \"\")",
                                         kAsksInitialised, kDeletes));
  }
}

TEST_F(AdvanceDialog, ReportsZeroWhenTheProxyIsLostWhileTheDialogIsShown) {
  AnswerInitialised();
  host.AnswerDialog("SkinDialog::Show", 0, true);

  EXPECT_EQ(Run("CoreUtilsAdvanceDialog", {}), Result(0));

  EXPECT_THAT(TakeCalls(),
              ElementsAre(kAsksForPipe,
                          "SkinDialog(null, \"\", \"\", \"\", \"\", 1, \"pipe\", false, \"\")",
                          kAsksInitialised, kShowsAndWaits, kDeletes));
}

TEST_F(AdvanceDialog, ReportsZeroForAnyButtonOfAProxyThatWasLost) {
  for (const unsigned int button : {100U, 101U, 102U, 0U}) {
    AnswerInitialised();
    host.Answer("SkinDialog::Show", 0);
    host.AnswerDialog("SkinDialog::GetButtonClickedID", button, true);

    EXPECT_EQ(Run("CoreUtilsAdvanceDialog", {}), Result(0)) << button;

    EXPECT_THAT(TakeCalls(),
                ElementsAre(kAsksForPipe,
                            "SkinDialog(null, \"\", \"\", \"\", \"\", 1, \"pipe\", false, \"\")",
                            kAsksInitialised, kShowsAndWaits, kAsksButton, kDeletes));
  }
}

TEST_F(AdvanceDialog, IsNotClosedAsTheMessageThatIsShown) {
  AnswerEnded(100, [this] {
    host.ForgetTranscript();
    ExpectNotToWait([this] {
      EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
      EXPECT_EQ(Code("CoreUtilsDestroyAckPopup"), kSuccess);
    });
    EXPECT_THAT(host.Transcript(), IsEmpty());
  });
  EXPECT_EQ(Run("CoreUtilsAdvanceDialog", {}), Result(1));
}

TEST_F(AdvanceDialog, LeavesTheMessageThatIsShownAlone) {
  ShowMessage("m");
  EXPECT_EQ(Answered(100, {}), Result(1));
  host.ForgetTranscript();
  host.Answer("SkinDialog::Close", 0);

  EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);

  EXPECT_THAT(host.Transcript(), ElementsAre(kCloses, kDeletes));
}

TEST_F(AdvanceDialog, MayBeOpenSeveralTimesAndBesideAMessage) {
  AnswerInitialised();
  host.AnswerWork("SkinDialog::Show", 0, [this] {
    ExpectNotToWait([this] {
      ShowMessage("m");
      EXPECT_EQ(Answered(100, kBothLabels), Result(1));
    });
    host.Answer("SkinDialog::GetButtonClickedID", 101);
  });
  EXPECT_EQ(Run("CoreUtilsAdvanceDialog", kBothLabels), Result(0));
}

TEST_F(AdvanceDialog, TakesItsOwnLabelsWhileAnotherIsOpen) {
  Outcome inner = Result(-1);
  AnswerEnded(102, [&] { inner = Answered(102, kOkLabel); });

  EXPECT_EQ(Run("CoreUtilsAdvanceDialog", kBothLabels), Result(0));

  EXPECT_EQ(inner, Result(1));
}

TEST_F(AdvanceDialog, DoesNotWaitForAMessageThatIsBeingShown) {
  AnswerMessageShown(
      [this] { ExpectNotToWait([this] { EXPECT_EQ(Answered(100, kBothLabels), Result(1)); }); });
  EXPECT_EQ(Code("CoreUtilsShowDialog"), kSuccess);
}

TEST_F(AdvanceDialog, DoesNotWaitForAMessageThatIsBeingClosed) {
  ShowMessage("m");
  host.AnswerWork("SkinDialog::Close", 0, [this] {
    ExpectNotToWait([this] { EXPECT_EQ(Answered(100, kBothLabels), Result(1)); });
  });
  EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
}

// ---- side by side ----

class SideBySideDialogs : public DialogTest {
 protected:
  void AnswerClosed(bool isReached) { host.AnswerDialog("SkinDialog::Close", 0, !isReached); }
  /// The calls that take the message down.
  Lines Closes(bool isReached, const std::string& complaint) {
    if (isReached) return {kCloses, kDeletes};
    return {kCloses, "Error \"" + complaint + "\"", kDeletes};
  }
  Lines Closes(bool isReached) {
    return Closes(isReached, "Cannot reach the proxy to close the dialog box !");
  }

  /// Scripts a message in place of another one, by a proxy that is reached or not.
  void AnswerReplaced(bool isReached) {
    AnswerClosed(isReached);
    AnswerPipe();
    host.AnswerDialog("SkinDialog", 0, !isReached);
    if (!isReached) return;
    host.Answer("SkinDialog::IsInitialised", 1);
    host.Answer("SkinDialog::Show", 0);
  }
  Lines Replaces(bool isReached, const std::string& text) {
    const Lines closes =
        Closes(isReached, "Cannot reach the proxy to close the previous dialog box !");
    const Lines makes = {kAsksForPipe, MakesMessage(text)};
    if (!isReached) return Join({closes, makes, {kLogsNotDisplayed}});
    return Join({closes, makes, {kAsksInitialised, kShowsAndReturns}});
  }

  /// Closes what the test has left.
  void EndMessage() {
    host.Answer("SkinDialog::Close", 0);
    EXPECT_EQ(Code("CoreUtilsCloseDialog"), kSuccess);
    host.ForgetTranscript();
  }
};

const ZelContainer kSecond = Texts({{"Message", "second"}});
const ZelContainer kThird = Texts({{"Message", "third"}});

TEST_F(SideBySideDialogs, AMessageWaitsForEachStepOfAMessage) {
  for (const bool isReached : {true, false}) {
    for (const std::string& step : Replaces(isReached, "second")) {
      ShowMessage("first");
      AnswerReplaced(isReached);
      AnswerReplaced(isReached);

      RunWithRival(step, "CoreUtilsShowDialog", kSecond, "CoreUtilsShowDialog", kThird);

      EXPECT_EQ(TakeCalls(), Join({Replaces(isReached, "second"), Replaces(isReached, "third")}))
          << step;
      EndMessage();
    }
  }
}

TEST_F(SideBySideDialogs, AClosingWaitsForEachStepOfAMessage) {
  for (const bool isReached : {true, false}) {
    for (const std::string& step : Replaces(isReached, "second")) {
      ShowMessage("first");
      AnswerReplaced(isReached);
      AnswerClosed(isReached);

      RunWithRival(step, "CoreUtilsShowDialog", kSecond, "CoreUtilsCloseDialog", {});

      EXPECT_EQ(TakeCalls(), Join({Replaces(isReached, "second"), Closes(isReached)})) << step;
    }
  }
}

TEST_F(SideBySideDialogs, AMessageWaitsForEachStepOfAClosing) {
  for (const bool isReached : {true, false}) {
    for (const std::string& step : Closes(isReached)) {
      ShowMessage("first");
      AnswerClosed(isReached);
      AnswerMessageShown();

      RunWithRival(step, "CoreUtilsCloseDialog", {}, "CoreUtilsShowDialog", kSecond);

      EXPECT_EQ(TakeCalls(),
                Join({Closes(isReached),
                      {kAsksForPipe, MakesMessage("second"), kAsksInitialised, kShowsAndReturns}}))
          << step;
      EndMessage();
    }
  }
}

TEST_F(SideBySideDialogs, AClosingWaitsForEachStepOfAClosing) {
  for (const bool isReached : {true, false}) {
    for (const std::string& step : Closes(isReached)) {
      ShowMessage("first");
      AnswerClosed(isReached);

      RunWithRival(step, "CoreUtilsCloseDialog", {}, "CoreUtilsCloseDialog", {});

      EXPECT_EQ(TakeCalls(), Closes(isReached)) << step;
    }
  }
}

}  // namespace
