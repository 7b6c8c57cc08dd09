#include "libZel/skin_dialog.h"

#include <fmt/chrono.h>

#include <ctime>
#include <optional>
#include <string>

#include "agent/libZel/boundary.h"
#include "agent/libZel/dialog_memory.h"
#include "agent/libZel/dialog_options.h"
#include "agent/libZel/dialog_window.h"
#include "agent/libZel/live_dialogs.h"

struct SkinDialog::Window : DialogWindow {
  using DialogWindow::DialogWindow;
};

namespace {

const char* const kDialog = "a dialog";

std::string Wtf8(const ZelString& text) {
  return std::string(text.Utf8());
}

// Sets the flag when the operation, which tells whether the proxy was reached, fails.
template <typename Operation>
void Try(bool& error, Operation operation) {
  if (!Guarded(kDialog, false, operation)) error = true;
}

}  // namespace

SkinDialog::SkinDialog(HINSTANCE, const ZelString& text, const ZelString& firstButton,
                       const ZelString& secondButton, const ZelString& closeButton,
                       unsigned int buttons, const ZelString& pipeName, bool& error,
                       const ZelString& options) {
  Try(error, [&] {
    const auto read = ReadDialogOptions(options.Utf8(), text.Utf8());
    window_ = std::make_shared<Window>(pipeName);
    LiveDialogs::Instance().Add(this, window_);
    if (!read) {
      LibraryLog().ErrorWithNL("the options of a dialog are not understood: %S", options);
      return true;
    }
    return window_->Create(
        {Wtf8(text), Wtf8(firstButton), Wtf8(secondButton), Wtf8(closeButton), buttons, *read});
  });
}

// The dialog goes with its window's connection. A `Close` under way may keep the window itself.
// Left out of the check of virtual calls, which would make the object's memory unusable for one
// that comes too late.
__attribute__((no_sanitize("vptr"))) SkinDialog::~SkinDialog() {
  LiveDialogs::Instance().Remove(this);
  if (window_) window_->Drop();
}

// Looks at no member: `this` may have been deleted.
void SkinDialog::Close(bool& error, bool waitUntilGone) {
  Try(error, [&] {
    const std::shared_ptr<DialogWindow> window = LiveDialogs::Instance().Find(this);
    return !window || window->Close(waitUntilGone);
  });
}

void SkinDialog::Show(bool wait, bool& error) {
  Try(error, [&] { return window_ && window_->Show(wait); });
}

bool SkinDialog::IsInitialised(bool& error) {
  if (!window_ || !window_->IsReached()) error = true;
  return window_ && window_->IsMade();
}

unsigned int SkinDialog::GetButtonClickedID(bool& error) {
  unsigned int button = kNoButton;
  Try(error, [&] {
    const std::optional<unsigned int> told = window_ ? window_->Button() : std::nullopt;
    button = told.value_or(kNoButton);
    return told.has_value();
  });
  return button;
}

void SkinDialog::RefreshTimerArea() {}

void SkinDialog::RadioButtonProc() {}

void SkinDialog::ProcessButtonAction() {}

void* SkinDialog::GetWindowsHandle() {
  return nullptr;
}

ZelString SkinDialog::GetFormatedCurrentDateTime() {
  return Guarded(kDialog, ZelString(), [] {
    return ZelString(fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::localtime(std::time(nullptr))));
  });
}

int SkinDialog::SkinDialogProc() {
  return 0;
}

int SkinDialog::Run() {
  return 0;
}

bool SkinDialog::InitApplication() {
  return false;
}

bool SkinDialog::InitInstance() {
  return false;
}

void* SkinDialog::operator new(size_t size) {
  return DialogMemory::Take(size);
}

void SkinDialog::operator delete(void* memory) noexcept {
  DialogMemory::Release(memory);
}
