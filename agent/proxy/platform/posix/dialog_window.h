#pragma once

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/headerbar.h>
#include <gtkmm/label.h>
#include <gtkmm/window.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/proxy/desktop.h"
#include "agent/proxy/platform/posix/dialog_hearing.h"
#include "agent/proxy/platform/posix/image_loading.h"

/// The window of one dialog. On the desktop's thread alone.
///
/// Programs that work it, tests among them, find it by its class "zelproxy" and its title. Its Tab
/// order begins with the first button, then come the second one and the text, which takes the
/// focus only when it scrolls; from the last Tab goes on to the first. At its appearance the focus
/// is on the second of two buttons, or on the only one.
class DesktopDialog final : public Gtk::Window {
 public:
  struct Events {
    /// The window is on the screen.
    std::function<void()> appeared;
    /// The person has used a button, or the time since `Appear` is over (0). Comes once; the window
    /// is still there and must outlive the call.
    std::function<void(ButtonId)> answered;
  };

  DesktopDialog(const DialogContent& content, const std::optional<LoadedImage>& image,
                const std::string& timeLeft, Events events);

  /// Shows it for the first time, in the middle of the monitor with the pointer, `offset` logical
  /// pixels to the lower end side so that several can be told apart.
  void Appear(int offset);

  /// As `DialogHearing`, which becomes deaf by itself with the window's appearance, and to keys
  /// when it gets the focus.
  void SetCovered(bool isCovered) { hearing_.SetCovered(isCovered); }
  bool IsTooEarly(const GdkEvent& event) { return hearing_.IsTooEarly(event); }

 protected:
  bool on_map_event(GdkEventAny* event) override;
  bool on_key_press_event(GdkEventKey* event) override;
  bool on_focus_in_event(GdkEventFocus* event) override;
  bool on_delete_event(GdkEventAny* event) override;

 private:
  void AddHeader(const std::string& title);
  void AddBody(const DialogContent& content, const std::optional<LoadedImage>& image);
  void AddFooter(const DialogContent& content);
  void AddButton(Gtk::Box& footer, const DialogButton& button);
  void MoveFocus(bool isForward);
  void Answer(ButtonId button);
  void ShowTimeLeft();

  const ButtonId closeButton_;
  const std::string timeLeft_;
  const Events events_;
  /// 0: none.
  const std::chrono::seconds timeout_;
  /// Set with the appearance.
  std::chrono::steady_clock::time_point deadline_;

  // Of the window, which destroys them:
  Gtk::HeaderBar& header_;
  Gtk::Box& content_;
  Gtk::Label* countdown_ = nullptr;
  std::vector<Gtk::Button*> buttons_;
  std::vector<Gtk::Widget*> focusOrder_;

  DialogHearing hearing_{*this};
  bool hasAnswered_ = false;
};
