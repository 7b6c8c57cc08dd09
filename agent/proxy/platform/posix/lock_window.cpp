#include "agent/proxy/platform/posix/lock_window.h"

#include <gdkmm/screen.h>
#include <gtkmm/cssprovider.h>
#include <gtkmm/stylecontext.h>
#include <pangomm/layout.h>

#include <algorithm>

#include "agent/proxy/platform/posix/shown_text.h"

#include <gdk/gdkx.h>  // last: it defines macros with common names

namespace {

constexpr const char* kStyle = R"(
window.zelproxy-lock {
  background-color: #10161f;
  background-image: linear-gradient(160deg, #1d2a3a, #10161f 55%, #0c1118);
}
.zelproxy-lock label { color: #c9d3df; text-shadow: none; }
.zelproxy-lock label.lock-title { color: #ffffff; }
.zelproxy-lock image { color: #7fa6d6; -gtk-icon-shadow: none; }
)";

constexpr double kWidthShare = 0.7;
constexpr double kMaxWidthInLetters = 46;
constexpr double kHeightShare = 0.86;
constexpr int kSmallestText = 10;
// More than fits on any screen.
constexpr size_t kMaxLetters = 20'000;

void UseStyle() {
  static const Glib::RefPtr<Gtk::CssProvider> kProvider = [] {
    const auto provider = Gtk::CssProvider::create();
    provider->load_from_data(kStyle);
    Gtk::StyleContext::add_provider_for_screen(Gdk::Screen::get_default(), provider,
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    return provider;
  }();
}

void SetSize(Gtk::Label& label, int pixels, bool isBold) {
  Pango::AttrList attributes;
  auto size = Pango::Attribute::create_attr_size_absolute(pixels * Pango::SCALE);
  attributes.insert(size);
  if (isBold) {
    auto weight = Pango::Attribute::create_attr_weight(Pango::WEIGHT_BOLD);
    attributes.insert(weight);
  }
  label.set_attributes(attributes);
}

void Prepare(Gtk::Label& label) {
  label.set_line_wrap(true);
  label.set_line_wrap_mode(Pango::WRAP_WORD_CHAR);
  label.set_justify(Gtk::JUSTIFY_CENTER);
  label.set_halign(Gtk::ALIGN_CENTER);
}

std::string Beginning(const std::string& text) {
  const Glib::ustring letters = text;
  return letters.size() <= kMaxLetters ? text : letters.substr(0, kMaxLetters).raw() + "…";
}

Glib::RefPtr<Pango::Layout> Layout(Gtk::Label& label, const std::string& text, int width) {
  const auto layout = label.create_pango_layout(text);
  auto attributes = label.get_attributes();
  layout->set_attributes(attributes);
  layout->set_width(width * Pango::SCALE);
  layout->set_wrap(Pango::WRAP_WORD_CHAR);
  return layout;
}

int Height(const Glib::RefPtr<Pango::Layout>& layout) {
  return layout->get_pixel_logical_extents().get_height();
}

// The lines of it that fit.
std::string Cut(Gtk::Label& label, const std::string& text, int width, int height) {
  const auto layout = Layout(label, text, width);
  const int count = layout->get_line_count();
  const int lineHeight = std::max(1, Height(layout) / std::max(1, count));
  const int fitting = std::max(1, height / lineHeight - 1);
  if (fitting >= count) return text;
  const int end = layout->get_line(fitting)->get_start_index();
  return text.substr(0, static_cast<size_t>(end)) + "…";
}

}  // namespace

LockWindow::LockWindow(const Gdk::Rectangle& place, Content content)
    : Gtk::Window(Gtk::WINDOW_POPUP),
      content_(content),
      width_(place.get_width()),
      height_(place.get_height()),
      box_(Gtk::ORIENTATION_VERTICAL) {
  UseStyle();
  set_title("zelproxy lock");
  get_style_context()->add_class("zelproxy-lock");
  title_.get_style_context()->add_class("lock-title");
  get_accessible()->set_role(Atk::ROLE_ALERT);

  for (Gtk::Label* const label : {&title_, &text_}) Prepare(*label);
  picture_.set_from_icon_name("changes-prevent-symbolic", Gtk::ICON_SIZE_DIALOG);
  box_.set_valign(Gtk::ALIGN_CENTER);
  box_.set_halign(Gtk::ALIGN_CENTER);
  for (Gtk::Widget* const widget :
       {static_cast<Gtk::Widget*>(&picture_), static_cast<Gtk::Widget*>(&title_),
        static_cast<Gtk::Widget*>(&text_)}) {
    box_.pack_start(*widget, Gtk::PACK_SHRINK);
  }
  if (content_ == Content::kText) add(box_);
  box_.show_all();
  move(place.get_x(), place.get_y());
  set_size_request(width_, height_);
  resize(width_, height_);
}

// GTK's own picture comes with the next frame; until then the server's black hides what is below.
void LockWindow::Cover() {
  show_now();
  Display* const display = ::gdk_x11_get_default_xdisplay();
  const auto window = GDK_WINDOW_XID(get_window()->gobj());
  ::XSetWindowBackground(display, window, BlackPixel(display, DefaultScreen(display)));
  ::XClearWindow(display, window);
  ::XSync(display, False);
}

void LockWindow::SetText(const std::string& title, const std::string& text) {
  if (content_ == Content::kNone) return;
  const std::string shownTitle = Beginning(ShownLine(title));
  const std::string shownText = Beginning(ShownText(text));
  get_accessible()->set_name(shownTitle);
  get_accessible()->set_description(shownText);
  title_.set_visible(!shownTitle.empty());
  text_.set_visible(!shownText.empty());
  Fit(shownTitle, shownText);
}

void LockWindow::Fit(const std::string& title, const std::string& text) {
  double shrink = 1;
  while (!TryFit(title, text, shrink)) shrink *= 0.85;
}

// Sets both texts at this size and tells whether they fit, or cannot be any smaller: then they are
// cut.
bool LockWindow::TryFit(const std::string& title, const std::string& text, double shrink) {
  const double base = std::clamp(height_ / 40.0, 14.0, 34.0);
  const int textSize = std::max(kSmallestText, static_cast<int>(base * shrink));
  const int titleSize = std::max(kSmallestText, static_cast<int>(base * 1.9 * shrink));
  const int gap = textSize;
  const int pictureSize = static_cast<int>(base * 3);
  const int width = static_cast<int>(std::min(width_ * kWidthShare, base * kMaxWidthInLetters));
  SetSize(title_, titleSize, true);
  SetSize(text_, textSize, false);
  picture_.set_pixel_size(pictureSize);
  picture_.set_margin_bottom(gap);
  title_.set_margin_bottom(gap);

  const int available = static_cast<int>(height_ * kHeightShare) - pictureSize - 2 * gap;
  const int titleHeight = Height(Layout(title_, title, width));
  const int textHeight = Height(Layout(text_, text, width));
  const bool fits = titleHeight + textHeight <= available;
  const bool isSmallest = textSize == kSmallestText && titleSize == kSmallestText;
  if (!fits && !isSmallest) return false;

  const int titleSpace = text.empty() ? available : std::max(available / 3, available - textHeight);
  const std::string shownTitle = fits ? title : Cut(title_, title, width, titleSpace);
  const int rest = available - std::min(titleHeight, titleSpace);
  title_.set_text(shownTitle);
  text_.set_text(fits ? text : Cut(text_, text, width, rest));
  for (Gtk::Label* const label : {&title_, &text_}) {
    const auto layout = Layout(*label, label->get_text(), width);
    label->set_size_request(layout->get_pixel_logical_extents().get_width() + 2, -1);
    label->set_max_width_chars(1);
  }
  return true;
}
