#include "agent/proxy/platform/posix/dialog_layout.h"

#include <gdkmm/display.h>
#include <gdkmm/monitor.h>
#include <gdkmm/screen.h>
#include <gdkmm/seat.h>
#include <gtkmm/cssprovider.h>
#include <gtkmm/image.h>
#include <gtkmm/scrolledwindow.h>
#include <gtkmm/settings.h>
#include <gtkmm/stylecontext.h>
#include <gtkmm/textview.h>

#include <algorithm>

#include "agent/proxy/long_lines.h"

namespace {

constexpr int kTextColumns = 52;
constexpr int kTextColumnsBesideImage = 36;
constexpr int kTitleColumns = 40;
constexpr int kTitleLines = 3;
constexpr int kTitleMargin = 8;
constexpr int kButtonColumns = 28;
constexpr int kButtonWidth = 96;
constexpr double kTextShareOfMonitor = 0.6;
// Beyond this a text is not measured any more: it scrolls.
constexpr size_t kLongTextBytes = 20'000;
// A text view takes seconds for a single line of a million letters.
constexpr LineLimits kLineLimits{4'000, 4'200};

Glib::RefPtr<Gdk::Monitor> MonitorWithPointer() {
  const auto display = Gdk::Display::get_default();
  int x = 0;
  int y = 0;
  display->get_default_seat()->get_pointer()->get_position(x, y);
  return display->get_monitor_at_point(x, y);
}

// On the side where the person has it elsewhere; without the controls that make no sense here.
std::string DecorationLayout() {
  const std::string usual =
      Gtk::Settings::get_default()->property_gtk_decoration_layout().get_value();
  const size_t close = usual.find("close");
  const size_t middle = usual.find(':');
  return close != std::string::npos && close < middle ? "close:" : ":close";
}

int TextWidth(Gtk::Label& label, int columns) {
  Pango::FontMetrics metrics =
      label.get_pango_context()->get_metrics(label.get_style_context()->get_font());
  const int column =
      std::max(metrics.get_approximate_char_width(), metrics.get_approximate_digit_width());
  return columns * column / Pango::SCALE;
}

int TextHeight(Gtk::Label& label, const std::string& text, int width) {
  const auto layout = label.create_pango_layout(text);
  layout->set_width(width * Pango::SCALE);
  layout->set_wrap(Pango::WRAP_WORD_CHAR);
  return layout->get_pixel_logical_extents().get_height();
}

// The header bar does not ask for it at the width that it gives.
int TitleHeight(Gtk::Label& label, const std::string& title) {
  const auto layout = label.create_pango_layout(title);
  layout->set_width(TextWidth(label, kTitleColumns) * Pango::SCALE);
  layout->set_wrap(Pango::WRAP_WORD_CHAR);
  layout->set_ellipsize(Pango::ELLIPSIZE_END);
  layout->set_height(-kTitleLines);
  return layout->get_pixel_logical_extents().get_height();
}

// Drawn here, for what a theme's icons look like is left to chance.
constexpr const char* kStyle = R"(
.zelproxy-badge {
  min-width: 48px;
  min-height: 48px;
  border-radius: 24px;
  background-color: #2a6fc4;
  color: #ffffff;
  font-size: 28px;
  font-weight: bold;
}
/* Without a compositor the frame is drawn here, and themes draw a thick white one. */
.zelproxy-dialog.solid-csd > decoration {
  padding: 1px; border: none; box-shadow: none; background-color: #a9a29a;
}
.zelproxy-dialog button.text-button { padding: 6px 14px; }
.zelproxy-dialog .zelproxy-answers button:focus {
  border-color: #2a6fc4; outline: none; box-shadow: 0 0 0 1px #2a6fc4;
}
)";

Gtk::Widget* MakeBadge(bool isQuestion) {
  const auto badge = Gtk::make_managed<Gtk::Label>(isQuestion ? "?" : "i");
  badge->get_style_context()->add_class("zelproxy-badge");
  badge->get_accessible()->set_role(Atk::ROLE_ICON);
  return badge;
}

Gtk::Widget* MakeImage(const LoadedImage& image) {
  const auto picture = Gtk::make_managed<Gtk::Image>();
  picture->set(Cairo::RefPtr<Cairo::Surface>(new Cairo::Surface(
      ::gdk_cairo_surface_create_from_pixbuf(image.pixels->gobj(), image.scale, nullptr), true)));
  return picture;
}

// A text view, for a label's window cannot be higher than 32767 pixels.
DialogText MakeLongText(const std::string& text, int width, int height) {
  const auto view = Gtk::make_managed<Gtk::TextView>();
  view->set_editable(false);
  view->set_cursor_visible(false);
  view->set_accepts_tab(false);
  view->set_wrap_mode(Gtk::WRAP_WORD_CHAR);
  for (const auto side : {&Gtk::TextView::set_left_margin, &Gtk::TextView::set_right_margin,
                          &Gtk::TextView::set_top_margin, &Gtk::TextView::set_bottom_margin}) {
    (view->*side)(8);
  }
  view->get_buffer()->set_text(WithBrokenLines(text, kLineLimits));
  // No menu: while it is open, the screen could not be locked.
  view->signal_button_press_event().connect(
      [](GdkEventButton* event) { return event->button == GDK_BUTTON_SECONDARY; }, false);
  view->signal_popup_menu().connect([] { return true; }, false);

  const auto scrolled = Gtk::make_managed<Gtk::ScrolledWindow>();
  scrolled->set_policy(Gtk::POLICY_NEVER, Gtk::POLICY_AUTOMATIC);
  scrolled->set_shadow_type(Gtk::SHADOW_IN);
  scrolled->set_overlay_scrolling(false);
  scrolled->set_size_request(width + 2 * kDialogMargin, height);
  scrolled->add(*view);
  return {scrolled, view};
}

}  // namespace

Gdk::Rectangle WorkArea() {
  Gdk::Rectangle area;
  MonitorWithPointer()->get_workarea(area);
  return area;
}

void UseDialogStyle() {
  static const Glib::RefPtr<Gtk::CssProvider> kProvider = [] {
    const auto provider = Gtk::CssProvider::create();
    provider->load_from_data(kStyle);
    Gtk::StyleContext::add_provider_for_screen(Gdk::Screen::get_default(), provider,
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    return provider;
  }();
}

void Wrap(Gtk::Label& label) {
  label.set_line_wrap(true);
  label.set_line_wrap_mode(Pango::WRAP_WORD_CHAR);
}

void AddDialogTitle(Gtk::HeaderBar& header, const std::string& title) {
  const auto label = Gtk::make_managed<Gtk::Label>(title);
  Wrap(*label);
  label->set_lines(kTitleLines);
  label->set_ellipsize(Pango::ELLIPSIZE_END);
  label->set_max_width_chars(kTitleColumns);
  label->set_justify(Gtk::JUSTIFY_CENTER);
  label->get_style_context()->add_class("title");
  label->set_margin_top(kTitleMargin);
  label->set_margin_bottom(kTitleMargin);
  header.set_custom_title(*label);
  header.set_decoration_layout(DecorationLayout());
}

int DialogTitleHeight(Gtk::HeaderBar& header, const std::string& title) {
  auto& label = *static_cast<Gtk::Label*>(header.get_custom_title());
  return TitleHeight(label, title) + 2 * kTitleMargin;
}

Gtk::Widget* MakeDialogPicture(const std::optional<LoadedImage>& image, bool isQuestion) {
  Gtk::Widget* const picture = image ? MakeImage(*image) : MakeBadge(isQuestion);
  picture->set_valign(Gtk::ALIGN_START);
  return picture;
}

DialogText MakeDialogText(const std::string& text, bool isBesideImage) {
  const auto label = Gtk::make_managed<Gtk::Label>();
  Wrap(*label);
  const int columns = isBesideImage ? kTextColumnsBesideImage : kTextColumns;
  const int width = TextWidth(*label, columns);
  const int maxHeight = static_cast<int>(WorkArea().get_height() * kTextShareOfMonitor);
  const bool isLong = text.size() > kLongTextBytes || TextHeight(*label, text, width) > maxHeight;
  if (isLong) return MakeLongText(text, width, maxHeight);

  label->set_text(text);
  label->set_width_chars(columns);
  label->set_max_width_chars(columns);
  label->set_xalign(0);
  label->set_yalign(text.find('\n') == std::string::npos ? 0.5F : 0.0F);
  return {label, nullptr};
}

Gtk::Button* MakeDialogButton(const std::string& text) {
  const auto label = Gtk::make_managed<Gtk::Label>(text);
  Wrap(*label);
  label->set_max_width_chars(kButtonColumns);
  label->set_lines(3);
  label->set_ellipsize(Pango::ELLIPSIZE_END);
  label->set_justify(Gtk::JUSTIFY_CENTER);

  const auto button = Gtk::make_managed<Gtk::Button>();
  button->add(*label);
  button->set_size_request(kButtonWidth, -1);
  button->set_valign(Gtk::ALIGN_CENTER);
  button->get_accessible()->set_name(text);
  return button;
}
