#pragma once

#include <gtkmm/box.h>
#include <gtkmm/image.h>
#include <gtkmm/label.h>
#include <gtkmm/window.h>

#include <string>

/// Covers one monitor with a title and a text, in letters as large as the monitor allows.
class LockWindow final : public Gtk::Window {
 public:
  explicit LockWindow(const Gdk::Rectangle& place);
  void SetText(const std::string& title, const std::string& text);

 private:
  void Fit(const std::string& title, const std::string& text);
  bool TryFit(const std::string& title, const std::string& text, double shrink);

  const int width_;
  const int height_;
  Gtk::Box box_;
  Gtk::Image picture_;
  Gtk::Label title_;
  Gtk::Label text_;
};
