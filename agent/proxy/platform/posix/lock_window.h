#pragma once

#include <gtkmm/box.h>
#include <gtkmm/image.h>
#include <gtkmm/label.h>
#include <gtkmm/window.h>

#include <string>

/// Covers a monitor with a title and a text, in letters as large as it allows, or a place with
/// nothing but colour.
class LockWindow final : public Gtk::Window {
 public:
  enum class Content { kText, kNone };
  LockWindow(const Gdk::Rectangle& place, Content content);
  /// Shows it and returns when nothing below can be seen any more.
  void Cover();
  /// Does nothing in a window without content.
  void SetText(const std::string& title, const std::string& text);

 private:
  void Fit(const std::string& title, const std::string& text);
  bool TryFit(const std::string& title, const std::string& text, double shrink);

  const Content content_;
  const int width_;
  const int height_;
  Gtk::Box box_;
  Gtk::Image picture_;
  Gtk::Label title_;
  Gtk::Label text_;
};
