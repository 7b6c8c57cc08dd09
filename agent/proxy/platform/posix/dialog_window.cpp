#include "agent/proxy/platform/posix/dialog_window.h"

#include <glibmm/main.h>
#include <gtkmm/stylecontext.h>

#include <algorithm>
#include <utility>

#include "agent/proxy/platform/posix/dialog_layout.h"
#include "agent/proxy/platform/posix/shown_text.h"

namespace {

using std::chrono::milliseconds, std::chrono::seconds, std::chrono::steady_clock;

// The beginning of what is so long, between `from` and a place that leaves all of it to be seen.
int PlaceWithin(int from, int extent, int length, int wanted) {
  return std::clamp(wanted, from, std::max(from, from + extent - length));
}

}  // namespace

DesktopDialog::DesktopDialog(const DialogContent& content, const std::optional<LoadedImage>& image,
                             const std::string& timeLeft, Events events)
    : closeButton_(content.closeButton),
      timeLeft_(timeLeft),
      events_(std::move(events)),
      timeout_(content.timeoutS),
      header_(*Gtk::make_managed<Gtk::HeaderBar>()),
      content_(*Gtk::make_managed<Gtk::Box>(Gtk::ORIENTATION_VERTICAL, kDialogMargin)) {
  UseDialogStyle();
  get_style_context()->add_class("zelproxy-dialog");
  const std::string title = ShownLine(content.title);
  set_icon_name(content.buttons.size() > 1 ? "dialog-question" : "dialog-information");
  set_type_hint(Gdk::WINDOW_TYPE_HINT_DIALOG);
  set_resizable(false);
  set_keep_above(content.staysOnTop);
  if (content.staysOnTop) stick();

  content_.set_border_width(kDialogMargin);
  add(content_);
  AddHeader(title);
  AddBody(content, image);
  AddFooter(content);

  // Screen readers read an alert out when it appears.
  const auto accessible = get_accessible();
  accessible->set_role(Atk::ROLE_ALERT);
  accessible->set_name(title);
  accessible->set_description(ShownText(content.text));
}

void DesktopDialog::AddHeader(const std::string& title) {
  AddDialogTitle(header_, title);
  header_.set_show_close_button(closeButton_ != 0);
  set_titlebar(header_);
  set_title(title);  // now: the header bar brings its own, none
  header_.set_size_request(-1, DialogTitleHeight(header_, title));
}

void DesktopDialog::AddBody(const DialogContent& content, const std::optional<LoadedImage>& image) {
  const auto body = Gtk::make_managed<Gtk::Box>(Gtk::ORIENTATION_HORIZONTAL, kDialogMargin);
  body->pack_start(*MakeDialogPicture(image, content.buttons.size() > 1), Gtk::PACK_SHRINK);
  const DialogText text = MakeDialogText(ShownText(content.text), image.has_value());
  body->pack_start(*text.widget);
  if (text.focus) focusOrder_.push_back(text.focus);
  content_.pack_start(*body);
}

void DesktopDialog::AddFooter(const DialogContent& content) {
  const bool isTimed = timeout_.count() > 0;
  if (!isTimed && content.buttons.empty()) return;
  const auto footer = Gtk::make_managed<Gtk::Box>(Gtk::ORIENTATION_HORIZONTAL, 12);
  if (isTimed) {
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
  auto& widget = *buttons_.emplace_back(MakeDialogButton(ShownLine(button.label)));
  widget.signal_clicked().connect([this, id = button.id] { Answer(id); });
  footer.pack_start(widget, Gtk::PACK_SHRINK);
}

void DesktopDialog::Appear(int offset) {
  if (countdown_) {
    deadline_ = steady_clock::now() + timeout_;
    ShowTimeLeft();
  }
  content_.show_all();
  header_.show_all();
  int width = 0;
  int height = 0;
  int minimum = 0;
  get_preferred_width(minimum, width);
  get_preferred_height(minimum, height);

  const Gdk::Rectangle area = WorkArea();
  const int sideways = get_direction() == Gtk::TEXT_DIR_RTL ? -offset : offset;
  move(PlaceWithin(area.get_x(), area.get_width(), width,
                   area.get_x() + (area.get_width() - width) / 2 + sideways),
       PlaceWithin(area.get_y(), area.get_height(), height,
                   area.get_y() + (area.get_height() - height) / 2 + offset));
  set_urgency_hint(true);
  ::gtk_window_set_focus_visible(gobj(), TRUE);
  show();
}

bool DesktopDialog::on_map_event(GdkEventAny* event) {
  const bool isHandled = Gtk::Window::on_map_event(event);
  hearing_.BecomeDeaf();
  events_.appeared();
  return isHandled;
}

// What the person types may still be meant for the window that had the focus until now.
bool DesktopDialog::on_focus_in_event(GdkEventFocus* event) {
  set_urgency_hint(false);
  hearing_.BecomeDeafToKeys();
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
  if (hearing_.IsDeaf() || hasAnswered_) return;
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
