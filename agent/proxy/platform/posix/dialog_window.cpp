#include "agent/proxy/platform/posix/dialog_window.h"

#include <gdkmm/display.h>
#include <gdkmm/monitor.h>
#include <gdkmm/screen.h>
#include <gdkmm/seat.h>
#include <glibmm/main.h>
#include <gtkmm/cssprovider.h>
#include <gtkmm/image.h>
#include <gtkmm/scrolledwindow.h>
#include <gtkmm/settings.h>
#include <gtkmm/stylecontext.h>
#include <gtkmm/textview.h>

#include <algorithm>
#include <utility>

#include "agent/proxy/platform/posix/shown_text.h"

#include <gdk/gdkx.h>  // last: it defines macros with common names

namespace {

using std::chrono::milliseconds, std::chrono::seconds, std::chrono::steady_clock;

constexpr unsigned kDeafnessMs = 500;
constexpr int kMargin = 20;
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
constexpr size_t kLongLineBytes = 10'000;

Glib::RefPtr<Gdk::Monitor> MonitorWithPointer() {
  const auto display = Gdk::Display::get_default();
  int x = 0;
  int y = 0;
  display->get_default_seat()->get_pointer()->get_position(x, y);
  return display->get_monitor_at_point(x, y);
}

Gdk::Rectangle WorkArea() {
  Gdk::Rectangle area;
  MonitorWithPointer()->get_workarea(area);
  return area;
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

void Wrap(Gtk::Label& label) {
  label.set_line_wrap(true);
  label.set_line_wrap_mode(Pango::WRAP_WORD_CHAR);
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
.zelproxy-dialog button.text-button { padding: 6px 14px; }
.zelproxy-dialog .zelproxy-answers button:focus {
  border-color: #2a6fc4; outline: none; box-shadow: 0 0 0 1px #2a6fc4;
}
)";

void UseStyle() {
  static const Glib::RefPtr<Gtk::CssProvider> kProvider = [] {
    const auto provider = Gtk::CssProvider::create();
    provider->load_from_data(kStyle);
    Gtk::StyleContext::add_provider_for_screen(Gdk::Screen::get_default(), provider,
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    return provider;
  }();
}

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

// A text view takes seconds for a single line of a million letters.
std::string WithBrokenLines(const std::string& text) {
  std::string broken;
  size_t lineBytes = 0;
  for (const char letter : text) {
    const bool breaks = lineBytes > kLongLineBytes && letter == ' ';
    broken += breaks ? '\n' : letter;
    lineBytes = broken.back() == '\n' ? 0 : lineBytes + 1;
  }
  return broken;
}

}  // namespace

DesktopDialog::DesktopDialog(const DialogContent& content, const std::optional<LoadedImage>& image,
                             const std::string& timeLeft, Events events)
    : closeButton_(content.closeButton),
      timeLeft_(timeLeft),
      events_(std::move(events)),
      isTimed_(content.timeoutS > 0),
      deadline_(steady_clock::now() + seconds(content.timeoutS)),
      header_(*Gtk::make_managed<Gtk::HeaderBar>()),
      content_(*Gtk::make_managed<Gtk::Box>(Gtk::ORIENTATION_VERTICAL, kMargin)) {
  UseStyle();
  get_style_context()->add_class("zelproxy-dialog");
  const std::string title = ShownLine(content.title);
  set_icon_name(content.buttons.size() > 1 ? "dialog-question" : "dialog-information");
  set_type_hint(Gdk::WINDOW_TYPE_HINT_DIALOG);
  set_resizable(false);
  set_keep_above(content.staysOnTop);
  if (content.staysOnTop) stick();

  content_.set_border_width(kMargin);
  add(content_);
  AddHeader(title);
  AddBody(content, image);
  AddFooter(content);
  if (isTimed_) ShowTimeLeft();

  // Screen readers read an alert out when it appears.
  const auto accessible = get_accessible();
  accessible->set_role(Atk::ROLE_ALERT);
  accessible->set_name(title);
  accessible->set_description(ShownText(content.text));
}

// A header of its own, for some window managers show no title, and some cut it.
void DesktopDialog::AddHeader(const std::string& title) {
  const auto label = Gtk::make_managed<Gtk::Label>(title);
  Wrap(*label);
  label->set_lines(kTitleLines);
  label->set_ellipsize(Pango::ELLIPSIZE_END);
  label->set_max_width_chars(kTitleColumns);
  label->set_justify(Gtk::JUSTIFY_CENTER);
  label->get_style_context()->add_class("title");
  label->set_margin_top(kTitleMargin);
  label->set_margin_bottom(kTitleMargin);
  header_.set_custom_title(*label);
  header_.set_decoration_layout(DecorationLayout());
  header_.set_show_close_button(closeButton_ != 0);
  set_titlebar(header_);
  set_title(title);  // now: the header bar brings its own, none
  header_.set_size_request(-1, TitleHeight(*label, title) + 2 * kTitleMargin);
}

void DesktopDialog::AddBody(const DialogContent& content, const std::optional<LoadedImage>& image) {
  const auto body = Gtk::make_managed<Gtk::Box>(Gtk::ORIENTATION_HORIZONTAL, kMargin);
  Gtk::Widget* const picture = image ? MakeImage(*image) : MakeBadge(content.buttons.size() > 1);
  picture->set_valign(Gtk::ALIGN_START);
  body->pack_start(*picture, Gtk::PACK_SHRINK);
  AddText(*body, ShownText(content.text), image ? kTextColumnsBesideImage : kTextColumns);
  content_.pack_start(*body);
}

void DesktopDialog::AddText(Gtk::Box& body, const std::string& text, int columns) {
  const auto label = Gtk::make_managed<Gtk::Label>();
  Wrap(*label);
  const int width = TextWidth(*label, columns);
  const int maxHeight = static_cast<int>(WorkArea().get_height() * kTextShareOfMonitor);
  const bool isLong = text.size() > kLongTextBytes || TextHeight(*label, text, width) > maxHeight;
  if (isLong) {
    AddLongText(body, text, width, maxHeight);
    return;
  }
  label->set_text(text);
  label->set_width_chars(columns);
  label->set_max_width_chars(columns);
  label->set_xalign(0);
  label->set_yalign(text.find('\n') == std::string::npos ? 0.5F : 0.0F);
  body.pack_start(*label);
}

// A text view, for a label's window cannot be higher than 32767 pixels.
void DesktopDialog::AddLongText(Gtk::Box& body, const std::string& text, int width, int height) {
  const auto view = Gtk::make_managed<Gtk::TextView>();
  view->set_editable(false);
  view->set_cursor_visible(false);
  view->set_accepts_tab(false);
  view->set_wrap_mode(Gtk::WRAP_WORD_CHAR);
  for (const auto side : {&Gtk::TextView::set_left_margin, &Gtk::TextView::set_right_margin,
                          &Gtk::TextView::set_top_margin, &Gtk::TextView::set_bottom_margin}) {
    (view->*side)(8);
  }
  view->get_buffer()->set_text(WithBrokenLines(text));
  // No menu: while it is open, the screen could not be locked.
  view->signal_button_press_event().connect(
      [](GdkEventButton* event) { return event->button == GDK_BUTTON_SECONDARY; }, false);
  view->signal_popup_menu().connect([] { return true; }, false);

  const auto scrolled = Gtk::make_managed<Gtk::ScrolledWindow>();
  scrolled->set_policy(Gtk::POLICY_NEVER, Gtk::POLICY_AUTOMATIC);
  scrolled->set_shadow_type(Gtk::SHADOW_IN);
  scrolled->set_overlay_scrolling(false);
  scrolled->set_size_request(width + 2 * kMargin, height);
  scrolled->add(*view);
  body.pack_start(*scrolled);
  focusOrder_.push_back(view);
}

void DesktopDialog::AddFooter(const DialogContent& content) {
  if (!isTimed_ && content.buttons.empty()) return;
  const auto footer = Gtk::make_managed<Gtk::Box>(Gtk::ORIENTATION_HORIZONTAL, 12);
  if (isTimed_) {
    countdown_ = Gtk::make_managed<Gtk::Label>();
    countdown_->get_style_context()->add_class("dim-label");
    countdown_->set_xalign(0);
    Wrap(*countdown_);
    footer->pack_start(*countdown_);
  }

  const auto side = Gtk::make_managed<Gtk::Box>(Gtk::ORIENTATION_HORIZONTAL, 8);
  side->get_style_context()->add_class("zelproxy-answers");
  for (const DialogButton& button : content.buttons) AddButton(*side, button);
  footer->pack_end(*side, Gtk::PACK_SHRINK);
  content_.pack_end(*footer, Gtk::PACK_SHRINK);

  focusOrder_.insert(focusOrder_.begin(), buttons_.begin(), buttons_.end());
  // Never the first of two: it may grant something.
  if (!buttons_.empty()) set_focus(*buttons_.back());
}

void DesktopDialog::AddButton(Gtk::Box& footer, const DialogButton& button) {
  const std::string text = ShownLine(button.label);
  const auto label = Gtk::make_managed<Gtk::Label>(text);
  Wrap(*label);
  label->set_max_width_chars(kButtonColumns);
  label->set_lines(3);
  label->set_ellipsize(Pango::ELLIPSIZE_END);
  label->set_justify(Gtk::JUSTIFY_CENTER);

  auto& widget = *buttons_.emplace_back(Gtk::make_managed<Gtk::Button>());
  widget.add(*label);
  widget.set_size_request(kButtonWidth, -1);
  widget.set_valign(Gtk::ALIGN_CENTER);
  widget.get_accessible()->set_name(text);
  widget.signal_clicked().connect([this, id = button.id] { Answer(id); });
  footer.pack_start(widget, Gtk::PACK_SHRINK);
}

void DesktopDialog::Appear(int offset) {
  content_.show_all();
  header_.show_all();
  int width = 0;
  int height = 0;
  int minimum = 0;
  get_preferred_width(minimum, width);
  get_preferred_height(minimum, height);

  const Gdk::Rectangle area = WorkArea();
  const int sideways = get_direction() == Gtk::TEXT_DIR_RTL ? -offset : offset;
  move(area.get_x() + (area.get_width() - width) / 2 + sideways,
       area.get_y() + (area.get_height() - height) / 2 + offset);
  set_urgency_hint(true);
  ::gtk_window_set_focus_visible(gobj(), TRUE);
  show();
}

bool DesktopDialog::on_map_event(GdkEventAny* event) {
  const bool isHandled = Gtk::Window::on_map_event(event);
  BecomeDeaf();
  events_.appeared();
  return isHandled;
}

void DesktopDialog::BecomeDeaf() {
  isDeaf_ = true;
  hearing_.disconnect();
  // A slot that goes with this object, which a lambda would not.
  hearing_ = Glib::signal_timeout().connect(
      sigc::bind_return(sigc::mem_fun(*this, &DesktopDialog::EndDeafness), false), kDeafnessMs);
}

void DesktopDialog::EndDeafness() {
  if (!get_realized()) return;
  hearsSinceMs_ = ::gdk_x11_get_server_time(get_window()->gobj());
  heldKeys_ = KeysDown();
  isDeaf_ = false;
}

DesktopDialog::Keys DesktopDialog::KeysDown() const {
  Keys keys{};
  ::XQueryKeymap(::gdk_x11_get_default_xdisplay(), keys.data());
  return keys;
}

bool DesktopDialog::IsStillHeld(const GdkEventKey& key) const {
  const unsigned code = key.hardware_keycode;
  if (code >= heldKeys_.size() * 8) return false;
  return (static_cast<unsigned char>(heldKeys_[code / 8]) >> (code % 8) & 1U) != 0;
}

bool DesktopDialog::IsTooEarly(const GdkEvent& event) {
  if (isDeaf_) return true;
  // Sent before, and only now taken from the queue. The clock wraps after seven weeks.
  const guint32 time = ::gdk_event_get_time(&event);
  if (time != GDK_CURRENT_TIME && static_cast<gint32>(time - hearsSinceMs_) < 0) return true;

  // The repetitions of a key that was already down.
  if (event.type != GDK_KEY_PRESS && event.type != GDK_KEY_RELEASE) return false;
  if (!IsStillHeld(event.key)) return false;
  if (event.type == GDK_KEY_RELEASE) {
    const unsigned code = event.key.hardware_keycode;
    char& keys = heldKeys_[code / 8];
    keys = static_cast<char>(keys & ~(1 << (code % 8)));
  }
  return true;
}

bool DesktopDialog::on_focus_in_event(GdkEventFocus* event) {
  set_urgency_hint(false);
  // Held keys may have been let go while another window had the focus.
  const Keys down = KeysDown();
  for (size_t i = 0; i < down.size(); ++i) heldKeys_[i] = static_cast<char>(heldKeys_[i] & down[i]);
  return Gtk::Window::on_focus_in_event(event);
}

bool DesktopDialog::on_key_press_event(GdkEventKey* event) {
  switch (event->keyval) {
    case GDK_KEY_Escape:
      if (closeButton_ != 0) Answer(closeButton_);
      return true;
    case GDK_KEY_Tab:
    case GDK_KEY_KP_Tab:
      MoveFocus((event->state & GDK_SHIFT_MASK) == 0);
      return true;
    case GDK_KEY_ISO_Left_Tab:
      MoveFocus(false);
      return true;
    default:
      return Gtk::Window::on_key_press_event(event);
  }
}

void DesktopDialog::MoveFocus(bool isForward) {
  if (focusOrder_.empty()) return;
  const auto count = focusOrder_.size();
  const auto at = static_cast<size_t>(
      std::find(focusOrder_.begin(), focusOrder_.end(), get_focus()) - focusOrder_.begin());
  const size_t none = isForward ? count - 1 : 0;
  const size_t from = at < count ? at : none;
  focusOrder_[(from + (isForward ? 1 : count - 1)) % count]->grab_focus();
  ::gtk_window_set_focus_visible(gobj(), TRUE);
}

bool DesktopDialog::on_delete_event(GdkEventAny*) {
  if (closeButton_ != 0) Answer(closeButton_);
  return true;
}

// Also reached without an event: window managers and screen readers press by message.
void DesktopDialog::Answer(ButtonId button) {
  if (isDeaf_ || hasAnswered_) return;
  hasAnswered_ = true;
  events_.answered(button);
}

void DesktopDialog::ShowTimeLeft() {
  const auto left = deadline_ - steady_clock::now();
  if (left <= left.zero()) {
    if (hasAnswered_) return;
    hasAnswered_ = true;
    events_.answered(0);
    return;
  }
  const auto whole = std::chrono::ceil<seconds>(left);
  countdown_->set_text(ShownTimeLeft(timeLeft_, whole.count()));

  const auto next = std::chrono::ceil<milliseconds>(left - (whole - seconds(1)));
  Glib::signal_timeout().connect(
      sigc::bind_return(sigc::mem_fun(*this, &DesktopDialog::ShowTimeLeft), false),
      static_cast<unsigned>(next.count()));
}
