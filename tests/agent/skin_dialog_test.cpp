#include "libZel/skin_dialog.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/dialog_memory.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/proxy_waits.h"
#include "tests/agent/scripted_proxy.h"
#include "tests/agent/temporary_directory.h"
#include "tests/agent/test_pipe.h"

using proxy_protocol::Field;
using proxy_protocol::Message;

namespace {

constexpr unsigned int kYesNo = SkinDialog::BUTTON_YES_NO;
constexpr std::chrono::seconds kLongWait{60};

using Dialog = std::unique_ptr<SkinDialog>;

Dialog Make(const std::string& pipe, bool& error, unsigned int buttons = kYesNo,
            const ZelString& options = "", const ZelString& text = "Agreed?") {
  return std::make_unique<SkinDialog>(nullptr, text, "Yes", "No", "Close", buttons, pipe, error,
                                      options);
}

/// One dialog and its proxy.
class SkinDialogTest : public testing::Test {
 protected:
  void Start(unsigned int buttons = kYesNo, ScriptedProxy::Script script = nullptr) {
    proxy_ = std::make_unique<ScriptedProxy>(pipe_.Name(), std::move(script));
    dialog_ = Make(pipe_.Name(), error_, buttons);
  }
  /// Whether the error was set.
  std::future<bool> ShowAndWait() {
    return std::async(std::launch::async, [this] {
      bool error = false;
      dialog_->Show(true, error);
      return error;
    });
  }
  bool WaitUntilShown() {
    return proxy_->WaitUntil([this] { return proxy_->IsShown(1); });
  }
  unsigned int Button() { return dialog_->GetButtonClickedID(error_); }

  const TestPipe pipe_;
  std::unique_ptr<ScriptedProxy> proxy_;
  Dialog dialog_;
  bool error_ = false;
};

bool IsOver(std::future<bool>& show) {
  return show.wait_for(kLongWait) == std::future_status::ready;
}

}  // namespace

TEST_F(SkinDialogTest, TellsTheProxyWhatToShow) {
  const ScriptedProxy proxy(pipe_.Name());
  const std::string odd = "100% \"sure\"? <b>&amp;_\n" + std::string(1, '\0') + "\xE2\x80\xAE\x01" +
                          std::string(10000, 'x');
  ZelString options;
  options.Printf(" -InformationPopupTimeOut 30 -InformationPopup \"%S\" -n \"Title\" -TopMost 1",
                 odd);
  const Dialog dialog = Make(pipe_.Name(), error_, kYesNo, options, odd);
  EXPECT_TRUE(dialog->IsInitialised(error_));
  EXPECT_FALSE(error_);
  EXPECT_EQ(proxy.Last("dialog-create").fields, (std::vector<Field>{{"text", odd},
                                                                    {"buttons", "2"},
                                                                    {"firstButton", "Yes"},
                                                                    {"secondButton", "No"},
                                                                    {"closeButton", "Close"},
                                                                    {"title", "Title"},
                                                                    {"imagePath", ""},
                                                                    {"timeoutS", "30"},
                                                                    {"topMost", "1"}}));
}

TEST_F(SkinDialogTest, NamesImagesByTheirNativePath) {
  const ScriptedProxy proxy(pipe_.Name());
  const TemporaryDirectory directory;
  const ZelString path = directory / "logo.png";
  ZelString options;
  const Dialog dialog =
      Make(pipe_.Name(), error_, kYesNo, options.Printf(" -ImagePath \"%S\"", path));
  EXPECT_EQ(*proxy.Last("dialog-create").Find("imagePath"),
            FromNativePath(directory.Native("logo.png")).Utf8());
  const Dialog other = Make(pipe_.Name(), error_, kYesNo, " -ImagePath \"https://x/y\"");
  EXPECT_EQ(*proxy.Last("dialog-create").Find("imagePath"), "") << "no file of this machine";
  EXPECT_TRUE(other->IsInitialised(error_));
}

TEST_F(SkinDialogTest, WaitsForTheButton) {
  Start();
  std::future<bool> show = ShowAndWait();
  ASSERT_TRUE(WaitUntilShown());
  proxy_->End(1, SkinDialog::kFirstButton);
  ASSERT_TRUE(IsOver(show));
  EXPECT_FALSE(show.get());
  EXPECT_EQ(Button(), SkinDialog::kFirstButton);
  EXPECT_EQ(proxy_->Count("dialog-state"), 0u);
  EXPECT_FALSE(error_);
}

TEST_F(SkinDialogTest, TellsTheButtonOfADialogThatNobodyWaitedFor) {
  Start(SkinDialog::BUTTON_CLOSE);
  dialog_->Show(false, error_);
  EXPECT_EQ(Button(), SkinDialog::kNoButton);
  proxy_->End(1, SkinDialog::kCloseButton);
  EXPECT_EQ(Button(), SkinDialog::kCloseButton);
  EXPECT_FALSE(error_);
}

TEST_F(SkinDialogTest, IsTakenDownWithItsObject) {
  Start();
  dialog_->Show(false, error_);
  EXPECT_TRUE(proxy_->IsShown(1));
  dialog_.reset();
  EXPECT_TRUE(proxy_->WaitUntil([this] { return !proxy_->IsOpen(1); }));
  EXPECT_TRUE(proxy_->WaitUntil([this] { return proxy_->Connections() == 0; }));
  EXPECT_FALSE(error_);
}

TEST_F(SkinDialogTest, IsShownOnce) {
  Start();
  dialog_->Show(false, error_);
  EXPECT_FALSE(error_);
  dialog_->Show(false, error_);
  EXPECT_TRUE(error_);
  EXPECT_EQ(proxy_->Count("dialog-show"), 1u);
}

TEST_F(SkinDialogTest, IsClosedByAnotherThread) {
  Start();
  std::future<bool> show = ShowAndWait();
  ASSERT_TRUE(WaitUntilShown());
  dialog_->Close(error_, true);
  ASSERT_TRUE(IsOver(show));
  EXPECT_FALSE(show.get());
  EXPECT_FALSE(proxy_->IsOpen(1));
  EXPECT_EQ(*proxy_->Last("dialog-close").Find("wait"), "1");
  EXPECT_EQ(Button(), SkinDialog::kNoButton);
  EXPECT_FALSE(error_);
}

TEST_F(SkinDialogTest, IsOverBeforeItIsShownWhenItWasClosed) {
  Start();
  dialog_->Close(error_, false);
  EXPECT_EQ(*proxy_->Last("dialog-close").Find("wait"), "0");
  dialog_->Show(true, error_);
  EXPECT_EQ(Button(), SkinDialog::kNoButton);
  EXPECT_FALSE(error_);
}

TEST_F(SkinDialogTest, MayBeClosedTwice) {
  Start();
  std::future<bool> show = ShowAndWait();
  ASSERT_TRUE(WaitUntilShown());
  dialog_->Close(error_, false);
  ASSERT_TRUE(IsOver(show));
  dialog_->Close(error_, true);
  EXPECT_FALSE(error_);
}

TEST_F(SkinDialogTest, WaitsNoLongerThanUntilItsCloseIsAnswered) {
  Start();
  std::future<bool> show = ShowAndWait();
  ASSERT_TRUE(WaitUntilShown());
  proxy_->ForgetShows();
  dialog_->Close(error_, false);
  ASSERT_TRUE(IsOver(show));
  EXPECT_FALSE(show.get());
  EXPECT_EQ(Button(), SkinDialog::kNoButton);
  EXPECT_FALSE(error_);
}

TEST_F(SkinDialogTest, GoesWithItsConnectionWhenItCannotBeClosed) {
  Start(kYesNo, ScriptedProxy::Refuses("dialog-close"));
  std::future<bool> show = ShowAndWait();
  ASSERT_TRUE(WaitUntilShown());
  dialog_->Close(error_, false);
  EXPECT_TRUE(error_);
  ASSERT_TRUE(IsOver(show));
  EXPECT_TRUE(show.get());
  EXPECT_TRUE(proxy_->WaitUntil([this] { return !proxy_->IsOpen(1); }));
}

TEST_F(SkinDialogTest, DoesNotCloseADialogOfAnotherProxy) {
  Start();
  proxy_.reset();
  const ScriptedProxy next(pipe_.Name(), nullptr, 43);
  const Dialog other = Make(pipe_.Name(), error_);
  ASSERT_TRUE(next.IsOpen(1));
  dialog_->Close(error_, false);
  EXPECT_FALSE(error_);
  EXPECT_TRUE(next.IsOpen(1)) << "it has the same number";
}

TEST_F(SkinDialogTest, NoticesAtOnceThatTheProxyHasGone) {
  Start();
  std::future<bool> show = ShowAndWait();
  ASSERT_TRUE(WaitUntilShown());
  proxy_.reset();
  ASSERT_TRUE(IsOver(show));
  EXPECT_TRUE(show.get());
  EXPECT_EQ(Button(), SkinDialog::kNoButton);
  EXPECT_TRUE(error_);
}

TEST_F(SkinDialogTest, FailsWithoutAProxy) {
  for (const std::string& pipe : {pipe_.Name(), std::string()}) {
    bool error = false;
    const Dialog dialog = Make(pipe, error);
    EXPECT_TRUE(error);
    const std::vector<std::function<void(bool&)>> operations = {
        [&](bool& failed) { EXPECT_FALSE(dialog->IsInitialised(failed)); },
        [&](bool& failed) { dialog->Show(true, failed); },
        [&](bool& failed) { EXPECT_EQ(dialog->GetButtonClickedID(failed), 0u); },
        [&](bool& failed) { dialog->Close(failed, true); }};
    for (const auto& operation : operations) {
      error = false;
      operation(error);
      EXPECT_TRUE(error);
    }
  }
}

TEST_F(SkinDialogTest, IsNotInitialisedWhenTheProxyRefuses) {
  Start(kYesNo, ScriptedProxy::Refuses("dialog-create"));
  EXPECT_FALSE(dialog_->IsInitialised(error_));
  EXPECT_FALSE(error_) << "the proxy was reached";
  dialog_->Close(error_, true);
  EXPECT_FALSE(error_) << "there is nothing to close";
  dialog_->Show(true, error_);
  EXPECT_TRUE(error_) << "but nobody was asked";
}

TEST_F(SkinDialogTest, FailsWhenTheProxyCannotShowIt) {
  Start(kYesNo, ScriptedProxy::Refuses("dialog-show"));
  EXPECT_TRUE(dialog_->IsInitialised(error_));
  EXPECT_FALSE(error_);
  dialog_->Show(true, error_);
  EXPECT_TRUE(error_);
}

TEST_F(SkinDialogTest, IsNotInitialisedWithOptionsThatAreNone) {
  const ScriptedProxy proxy(pipe_.Name());
  const Dialog dialog = Make(pipe_.Name(), error_, kYesNo, " -Unknown \"x\"");
  EXPECT_FALSE(dialog->IsInitialised(error_));
  EXPECT_FALSE(error_);
  dialog->Close(error_, true);
  EXPECT_FALSE(error_) << "no proxy had to be reached";
  EXPECT_EQ(proxy.Count("dialog-create"), 0u);
}

TEST_F(SkinDialogTest, LeavesAnErrorSet) {
  Start();
  bool error = true;
  EXPECT_TRUE(dialog_->IsInitialised(error));
  dialog_->Show(false, error);
  dialog_->GetButtonClickedID(error);
  dialog_->Close(error, false);
  EXPECT_TRUE(error);
}

TEST_F(SkinDialogTest, TakesNoOddAnswerForAButton) {
  const std::vector<std::vector<Field>> answers = {
      {},
      {{"button", ""}},
      {{"button", "yes"}},
      {{"button", " 100"}},
      {{"button", "100 "}},
      {{"button", "0x64"}},
      {{"button", "-100"}},
      {{"button", "4294967396"}},
      {{"button", "99"}},
      {{"button", "102"}},
      {{"Button", "100"}},
  };
  for (const auto& fields : answers) {
    Start(kYesNo, ScriptedProxy::Says("dialog-show", fields));
    bool error = false;
    dialog_->Show(true, error);
    EXPECT_TRUE(error) << (fields.empty() ? "nothing" : fields[0].text);
    error = false;
    EXPECT_EQ(dialog_->GetButtonClickedID(error), SkinDialog::kNoButton);
    EXPECT_TRUE(error);
    dialog_.reset();
    proxy_.reset();
  }
}

TEST_F(SkinDialogTest, TakesNoButtonThatTheDialogDoesNotHave) {
  for (const unsigned int buttons : {SkinDialog::BUTTON_NO_BUTTON, SkinDialog::BUTTON_CLOSE}) {
    Start(buttons, ScriptedProxy::Says("dialog-show", {{"button", "100"}}));
    bool error = false;
    dialog_->Show(true, error);
    EXPECT_TRUE(error);
    dialog_.reset();
    proxy_.reset();
  }
}

TEST_F(SkinDialogTest, TakesNoOddState) {
  const std::vector<std::vector<Field>> answers = {
      {{"button", "100"}},
      {{"isOpen", "no"}},
      {{"isOpen", "yes"}, {"button", "100"}},
      {{"isOpen", "maybe"}, {"button", "0"}},
  };
  for (const auto& fields : answers) {
    Start(kYesNo, ScriptedProxy::Says("dialog-state", fields));
    bool error = false;
    dialog_->Show(false, error);
    EXPECT_FALSE(error);
    EXPECT_EQ(dialog_->GetButtonClickedID(error), SkinDialog::kNoButton);
    EXPECT_TRUE(error);
    dialog_.reset();
    proxy_.reset();
  }
}

TEST_F(SkinDialogTest, TakesNoOddNumber) {
  for (const char* const number : {"", "x", "-1", "4294967296"}) {
    Start(kYesNo, ScriptedProxy::Says("dialog-create", {{"dialog", number}}));
    EXPECT_TRUE(error_) << number;
    EXPECT_FALSE(dialog_->IsInitialised(error_));
    dialog_.reset();
    proxy_.reset();
    error_ = false;
  }
}

TEST_F(SkinDialogTest, EndsWhenTheAgentStops) {
  Start();
  bool error = false;
  const Dialog idle = Make(pipe_.Name(), error);
  idle->Show(false, error);
  EXPECT_FALSE(error);
  std::future<bool> show = ShowAndWait();
  ASSERT_TRUE(WaitUntilShown());

  EndProxyWaits();
  ASSERT_TRUE(IsOver(show));
  EXPECT_TRUE(show.get());
  EXPECT_TRUE(proxy_->WaitUntil([this] { return !proxy_->IsOpen(1) && !proxy_->IsOpen(2); }));
  EXPECT_EQ(idle->GetButtonClickedID(error), SkinDialog::kNoButton);
  EXPECT_TRUE(error);
  error = false;
  const Dialog late = Make(pipe_.Name(), error);
  EXPECT_TRUE(error);

  AllowProxyWaits();
  error = false;
  const Dialog next = Make(pipe_.Name(), error);
  EXPECT_TRUE(next->IsInitialised(error));
  EXPECT_FALSE(error);
}

TEST_F(SkinDialogTest, HasNoWindowHere) {
  Start();
  dialog_->RefreshTimerArea();
  dialog_->RadioButtonProc();
  dialog_->ProcessButtonAction();
  EXPECT_EQ(dialog_->GetWindowsHandle(), nullptr);
  EXPECT_EQ(dialog_->SkinDialogProc(), 0);
  EXPECT_EQ(dialog_->Run(), 0);
  EXPECT_FALSE(dialog_->InitApplication());
  EXPECT_FALSE(dialog_->InitInstance());
  EXPECT_THAT(std::string(dialog_->GetFormatedCurrentDateTime().Utf8()),
              testing::MatchesRegex("20..-..-.. ..:..:.."));
}

TEST_F(SkinDialogTest, BearsACloseThatComesTooLate) {
  Start();
  SkinDialog* const dialog = dialog_.get();
  dialog_.reset();
  dialog->Close(error_, true);
  EXPECT_FALSE(error_);
  EXPECT_EQ(proxy_->Count("dialog-close"), 0u);
}

// As an action withdraws a question: by a pointer that another thread has just deleted, or deletes
// now.
TEST_F(SkinDialogTest, BearsClosesWhileDialogsComeAndGo) {
  const ScriptedProxy proxy(pipe_.Name());
  std::atomic<SkinDialog*> pending = nullptr;
  std::atomic<bool> isOver = false;
  std::thread withdrawing([&] {
    while (!isOver) {
      SkinDialog* const dialog = pending;
      bool error = false;
      if (dialog) dialog->Close(error, false);
    }
  });
  for (int i = 0; i < 100; ++i) {
    bool error = false;
    Dialog dialog = Make(pipe_.Name(), error);
    EXPECT_TRUE(dialog->IsInitialised(error));
    pending = dialog.get();
    dialog->Show(true, error);
    EXPECT_EQ(dialog->GetButtonClickedID(error), SkinDialog::kNoButton);
    EXPECT_FALSE(error);
    dialog.reset();
  }
  isOver = true;
  withdrawing.join();
}

TEST(DialogMemory, RestsBeforeItIsUsedAgain) {
  constexpr size_t kSize = 48;
  std::set<void*> released;
  // Whatever other tests have left there is used up first.
  for (size_t i = 0; i <= DialogMemory::kRestingSlots; ++i) {
    void* const memory = DialogMemory::Take(kSize);
    EXPECT_FALSE(released.contains(memory));
    std::memset(memory, 'x', kSize);
    DialogMemory::Release(memory);
    EXPECT_EQ(static_cast<char*>(memory)[0], 'x') << "its content stays";
    EXPECT_EQ(static_cast<char*>(memory)[kSize - 1], 'x') << "its content stays";
    if (!released.insert(memory).second) break;
  }
  EXPECT_GE(released.size(), DialogMemory::kRestingSlots);
  void* const again = DialogMemory::Take(kSize);
  EXPECT_TRUE(released.contains(again));
  DialogMemory::Release(again);
}

TEST(DialogMemory, IsForObjectsOfOneSize) {
  std::set<void*> released;
  for (size_t i = 0; i <= DialogMemory::kRestingSlots; ++i) {
    void* const memory = DialogMemory::Take(32);
    released.insert(memory);
    DialogMemory::Release(memory);
  }
  void* const larger = DialogMemory::Take(64);
  EXPECT_FALSE(released.contains(larger));
  void* const same = DialogMemory::Take(32);
  EXPECT_TRUE(released.contains(same));
  DialogMemory::Release(larger);
  DialogMemory::Release(same);
}
