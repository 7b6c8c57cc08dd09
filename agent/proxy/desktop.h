#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// What the proxy shows to the person at the machine and sees of that person: one implementation for
// each toolkit, behind this interface. Texts are WTF-8 and plain: no part of them is markup,
// mnemonic or format; control characters and whatever the toolkit cannot show are replaced.

/// A button's identifier, as `SkinDialog` knows it; 0 is none.
using ButtonId = unsigned int;

struct DialogButton {
  ButtonId id = 0;
  /// Not empty.
  std::string label;
};

struct DialogContent {
  /// Of the window; not empty. As the labels up to some hundreds of characters.
  std::string title;
  /// Up to some hundred thousand characters: a long one scrolls.
  std::string text;
  /// None, one or two, in reading order.
  std::vector<DialogButton> buttons;
  /// What Escape and the window's close control answer; 0: the person cannot close the dialog.
  ButtonId closeButton = 0;
  /// An image to show beside the text, a native path; empty for none. Left out, with a line in the
  /// log, when it cannot be read, is no image, or is larger than 16 MiB, 8192 pixels either way or
  /// 32 megapixels.
  /// Shown within 320 by 240 logical pixels.
  std::string imagePath;
  /// After so many seconds the dialog ends with 0 and until then shows how many are left; 0: it
  /// stays.
  uint32_t timeoutS = 0;
  /// Whether the window stays above all others.
  bool staysOnTop = false;
};

/// The words of the windows themselves, in the person's language.
struct DesktopTexts {
  /// With "{Time}" in it for what is left, as "1:05".
  std::string timeLeft;
  /// The title and text of a locked screen until others are set.
  std::string lockTitle;
  std::string lockText;
  /// Whether the language is written from right to left: windows are mirrored then.
  bool isRightToLeft = false;
};

struct UserActivity {
  /// Since the last touch of keyboard or pointer.
  std::chrono::milliseconds idle{0};
  /// Whether the session's own screen lock or screen saver is on. The lock of `Lock` does not
  /// count.
  bool isScreenLocked = false;
};

/// Threads: made, run and destroyed by one thread, the desktop's; all else may be called from any
/// thread, before `Run` is entered too: what needs the desktop's thread waits for it then. Once
/// `Run` has returned no call waits any more: `CloseDialog` and `Unlock` do nothing, the others
/// throw. Calls that fail throw std::runtime_error with a sentence.
class Desktop {
 public:
  virtual ~Desktop() = default;

  /// Called once, from the desktop's thread, when the dialog is gone from the screen: with the
  /// button that was used, or 0 when it was closed otherwise.
  using Ended = std::function<void(ButtonId button)>;

  /// Puts a dialog on the screen; returns when its window is there. `id` is the caller's, used
  /// once. For half a second after its appearance a dialog takes no click and no key, and no key
  /// for half a second after it gets the focus, so that what the person was typing does not answer
  /// it. While the screen is locked nothing answers it, nor for half a second after. When this
  /// throws, `ended` is not called.
  virtual void ShowDialog(uint32_t id, const DialogContent& content, Ended ended) = 0;
  /// Takes the dialog down and returns when it is gone, after its `ended`. Does nothing for one
  /// that is not on the screen.
  virtual void CloseDialog(uint32_t id) = 0;

  /// Covers every monitor, also those that come later, with a screen that shows title and text and
  /// swallows keyboard and pointer; dialogs are below it. Returns when it is there and holds the
  /// input, and throws, with nothing left on the screen, when it cannot hold it. Locked already:
  /// does nothing.
  virtual void Lock() = 0;
  /// What the locked screen shows from now on; the next lock begins with its own words again.
  virtual void SetLockText(const std::string& title, const std::string& text) = 0;
  /// Returns when the screen is free again; does nothing when it is.
  virtual void Unlock() = 0;

  virtual UserActivity Activity() = 0;

  /// Shows windows and takes input until `Quit`, or until the system ends the session and says so.
  /// Takes all windows down at the end: dialogs end with 0. Returns at once after a `Quit` that
  /// came before. Does not return when the connection to an X11 display is lost, with which all
  /// windows are gone: the process ends with status 1 and a line on standard error.
  virtual void Run() = 0;
  virtual void Quit() = 0;

 protected:
  Desktop() = default;
  Desktop(const Desktop&) = delete;
  Desktop& operator=(const Desktop&) = delete;
};

/// Takes lines for the person who runs the program; from any thread.
using DesktopLog = std::function<void(const std::string& line)>;

/// The desktop of this session; null where there is none to show windows on.
std::unique_ptr<Desktop> MakeDesktop(const DesktopTexts& texts, DesktopLog log);
