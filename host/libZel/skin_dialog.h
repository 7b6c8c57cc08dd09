#pragma once

#include <cstdint>
#include <memory>

#include "libZel/string.h"

// The system's own type, spelt without its headers.
struct HINSTANCE__;  // NOLINT(bugprone-reserved-identifier): the system's own name
using HINSTANCE = HINSTANCE__*;

/// A dialog in front of the logged-on user. The user-session proxy draws it; this is its handle in
/// the agent. Making one connects to the proxy, `Show` puts it on the screen, the destructor takes
/// it down; so does the end of the agent's process or of the proxy.
///
/// Each operation sets the caller's `error` to true when the proxy could not be reached, and never
/// sets it to false. A proxy that ends meanwhile sets it at once. Texts are shown as they are: no
/// part of them is a command to the dialog.
///
/// Threads: one at a time, but for `Close`, which any thread may call while another waits in
/// `Show`, and which does nothing for a dialog that has just been deleted. Nothing here throws but
/// for want of memory.
class SkinDialog {
 public:
  // NOLINTBEGIN(readability-identifier-naming): names of the interface
  /// Button sets.
  static constexpr unsigned int BUTTON_NO_BUTTON = 0;
  static constexpr unsigned int BUTTON_CLOSE = 1;
  static constexpr unsigned int BUTTON_YES_NO = 2;
  // NOLINTEND(readability-identifier-naming)

  /// What `GetButtonClickedID` tells. Whatever else ended the dialog is `kNoButton`: `Close`, the
  /// time-out, the user's log-off.
  static constexpr unsigned int kNoButton = 0;
  static constexpr unsigned int kFirstButton = 100;
  static constexpr unsigned int kSecondButton = 101;
  static constexpr unsigned int kCloseButton = 102;

  /// `instance` is not looked at. `text` is the message. `firstButton` and `secondButton` are the
  /// labels of `BUTTON_YES_NO`, `closeButton` that of `BUTTON_CLOSE`; an empty label is replaced by
  /// a word in the user's language. Escape and the window's close control are the second button of
  /// `BUTTON_YES_NO`, and the only button of `BUTTON_CLOSE`.
  ///
  /// `options` is a command line of these, in this order, each in front of it a blank:
  ///   -InformationPopupTimeOut N   the dialog ends by itself after N seconds and shows how many
  ///                                are left; without it, and with 0, it stays
  ///   -InformationPopup "TEXT"     TEXT is the message once more
  ///   -ImagePath "PATH"            an image file on this machine, shown beside the message; left
  ///                                out when the user may not read it or it is no image
  ///   -n "TITLE"                   the window's title
  ///   -TopMost N                   with N other than 0 the window stays above all others
  /// The texts in it need no escapes. One that is not of this form is logged, and the dialog is not
  /// initialised.
  SkinDialog(HINSTANCE instance, const ZelString& text, const ZelString& firstButton,
             const ZelString& secondButton, const ZelString& closeButton, unsigned int buttons,
             const ZelString& pipeName, bool& error, const ZelString& options);

  // The order of the virtual functions is part of the interface.
  virtual ~SkinDialog();

  /// Takes the dialog down, also one that has not been shown yet: its `Show` returns at once then.
  /// With `waitUntilGone` it returns when the window is gone, else as soon as the proxy knows.
  virtual void Close(bool& error, bool waitUntilGone);
  /// Puts the dialog on the screen. With `wait` it returns when the dialog has ended, however long
  /// that takes; else at once. A dialog is shown once.
  virtual void Show(bool wait, bool& error);
  /// Whether the proxy could make the window: false without a display, for example.
  virtual bool IsInitialised(bool& error);
  /// How the dialog ended; `kNoButton` while it is on the screen.
  virtual unsigned int GetButtonClickedID(bool& error);

  // What a dialog with a window in this process does. The proxy's windows do it by themselves:
  // these do nothing, and answer null, 0 or false.
  virtual void RefreshTimerArea();
  virtual void RadioButtonProc();
  virtual void ProcessButtonAction();
  virtual void* GetWindowsHandle();
  /// The local time as "2012-10-04 17:35:35".
  virtual ZelString GetFormatedCurrentDateTime();
  virtual int SkinDialogProc();
  virtual int Run();
  virtual bool InitApplication();
  virtual bool InitInstance();

  SkinDialog(const SkinDialog&) = delete;
  SkinDialog& operator=(const SkinDialog&) = delete;

  // Memory of its own, which stays a dialog's: a `Close` that comes too late finds none instead of
  // other data.
  static void* operator new(size_t size);
  static void operator delete(void* memory) noexcept;

 private:
  struct Window;
  std::shared_ptr<Window> window_;
};
