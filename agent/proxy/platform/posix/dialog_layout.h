#pragma once

#include <gtkmm/button.h>
#include <gtkmm/headerbar.h>
#include <gtkmm/label.h>

#include <optional>
#include <string>

#include "agent/proxy/platform/posix/image_loading.h"

// What a dialog's window is made of and how it looks. Texts are as `ShownText` makes them; widgets
// belong to the container that they are put into. On the desktop's thread alone.

/// Around and between the parts of a dialog, logical pixels.
constexpr int kDialogMargin = 20;

/// Of the monitor with the pointer: where windows may be.
Gdk::Rectangle WorkArea();

/// For windows with the class "zelproxy-dialog" and boxes with "zelproxy-answers".
void UseDialogStyle();

/// Has it break its lines, within words too where they are too long.
void Wrap(Gtk::Label& label);

/// A header of its own, for some window managers show no title, and some cut it.
void AddDialogTitle(Gtk::HeaderBar& header, const std::string& title);
/// What the header needs for the title of `AddDialogTitle`; measured when the style is known.
int DialogTitleHeight(Gtk::HeaderBar& header, const std::string& title);

/// The image, or a sign for a question or a message without one.
Gtk::Widget* MakeDialogPicture(const std::optional<LoadedImage>& image, bool isQuestion);

struct DialogText {
  Gtk::Widget* widget;
  /// What takes the focus: null but in a text that scrolls.
  Gtk::Widget* focus;
};
/// Scrolls when it is long.
DialogText MakeDialogText(const std::string& text, bool isBesideImage);

Gtk::Button* MakeDialogButton(const std::string& text);
