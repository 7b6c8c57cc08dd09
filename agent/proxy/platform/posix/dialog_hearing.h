#pragma once

#include <gdk/gdk.h>
#include <gtkmm/window.h>

#include <array>

/// When a dialog's window takes notice of keyboard and pointer: nothing that began before the
/// person could read it, and no key that was meant for another window, answers it. On the desktop's
/// thread alone.
class DialogHearing : public sigc::trackable {
 public:
  /// Deaf at first. `window` is the one that contains this object.
  explicit DialogHearing(Gtk::Window& window) : window_(window) {}
  ~DialogHearing();
  DialogHearing(const DialogHearing&) = delete;
  DialogHearing& operator=(const DialogHearing&) = delete;

  /// Each for half a second from now on.
  void BecomeDeaf();
  void BecomeDeafToKeys();
  /// While a locked screen covers the window it is deaf, and half a second more.
  void SetCovered(bool isCovered);

  /// To everything, messages of the window manager and of screen readers too.
  bool IsDeaf() const { return isDeaf_ || isCovered_; }
  /// Whether an event of keyboard, pointer or touch comes too early to mean this dialog.
  bool IsTooEarly(const GdkEvent& event);

 private:
  using Keys = std::array<char, 32>;

  void Hear();
  void HearKeys();
  guint32 ServerTime() const;
  static Keys KeysDown();
  bool IsKeyTooEarly(const GdkEventKey& key);

  Gtk::Window& window_;
  bool isCovered_ = false;
  bool isDeaf_ = true;
  bool isDeafToKeys_ = true;
  sigc::connection hearing_;
  sigc::connection hearingKeys_;
  /// The server's time when it began to hear; what happened before is not for it.
  guint32 hearsSinceMs_ = 0;
  guint32 hearsKeysSinceMs_ = 0;
  /// The keys that were down then, until they are let go.
  Keys heldKeys_{};
};
