#include "agent/proxy/platform/posix/lock_screen.h"

#include <cairomm/region.h>
#include <gdkmm/display.h>
#include <gdkmm/monitor.h>
#include <gdkmm/screen.h>
#include <glibmm/main.h>

#include <algorithm>
#include <utility>

#include "agent/proxy/platform/posix/lock_window.h"

#include <gdk/gdkx.h>  // last: it defines macros with common names

namespace {

using std::chrono::milliseconds, std::chrono::steady_clock;

constexpr unsigned kGuardMs = 250;
constexpr milliseconds kRaiseEvery{40};

Gdk::Rectangle WholeScreen() {
  GdkWindow* const root = ::gdk_screen_get_root_window(::gdk_screen_get_default());
  return {0, 0, ::gdk_window_get_width(root), ::gdk_window_get_height(root)};
}

GdkWindow* Root() {
  return ::gdk_screen_get_root_window(::gdk_screen_get_default());
}

}  // namespace

LockScreen::LockScreen(Log log) : log_(std::move(log)) {}

LockScreen::~LockScreen() {
  Unlock();
}

bool LockScreen::TryLock(const std::string& title, const std::string& text) {
  if (isLocked_) return true;
  title_ = title;
  text_ = text;
  // A press on one of this program's own windows holds the pointer, too.
  ::gdk_seat_ungrab(::gdk_display_get_default_seat(::gdk_display_get_default()));
  if (!HoldInput()) {
    LetInputGo();
    return false;
  }
  isLocked_ = true;
  holdsInput_ = true;
  try {
    Begin();
  } catch (...) {
    Unlock();
    throw;
  }
  return true;
}

void LockScreen::Begin() {
  GdkWindow* const root = Root();
  ::gdk_window_set_events(
      root, static_cast<GdkEventMask>(::gdk_window_get_events(root) | GDK_SUBSTRUCTURE_MASK));
  ::gdk_window_add_filter(root, Watch, this);
  const auto cover = sigc::mem_fun(*this, &LockScreen::CoverMonitors);
  const auto screen = Gdk::Screen::get_default();
  connections_ = {
      screen->signal_monitors_changed().connect(cover),
      screen->signal_size_changed().connect(cover),
      Glib::signal_timeout().connect(sigc::mem_fun(*this, &LockScreen::Guard), kGuardMs)};
  CoverMonitors();
}

void LockScreen::Unlock() {
  if (!isLocked_) return;
  isLocked_ = false;
  for (sigc::connection& connection : connections_) connection.disconnect();
  connections_.clear();
  raising_.disconnect();
  ::gdk_window_remove_filter(Root(), Watch, this);
  windows_.clear();
  LetInputGo();
}

void LockScreen::SetText(const std::string& title, const std::string& text) {
  title_ = title;
  text_ = text;
  for (const auto& window : windows_) window->SetText(title_, text_);
}

// The core protocol's grabs: GTK takes no notice of their events, which is what is wanted, and a
// repeated one renews those that were lost. What it holds it keeps, also where it cannot hold both:
// of a locked screen's input as much as can be had.
bool LockScreen::HoldInput() {
  Display* const display = ::gdk_x11_get_default_xdisplay();
  const Window root = ::gdk_x11_get_default_root_xwindow();
  if (::XGrabKeyboard(display, root, False, GrabModeAsync, GrabModeAsync, CurrentTime) !=
      GrabSuccess) {
    return false;
  }
  GdkCursor* const arrow = ::gdk_cursor_new_from_name(::gdk_display_get_default(), "default");
  const Cursor cursor = arrow ? ::gdk_x11_cursor_get_xcursor(arrow) : None;
  constexpr unsigned kButtons = ButtonPressMask | ButtonReleaseMask;
  const int result = ::XGrabPointer(display, root, False, kButtons, GrabModeAsync, GrabModeAsync,
                                    None, cursor, CurrentTime);
  if (arrow) ::g_object_unref(arrow);
  return result == GrabSuccess;
}

void LockScreen::LetInputGo() {
  Display* const display = ::gdk_x11_get_default_xdisplay();
  ::XUngrabPointer(display, CurrentTime);
  ::XUngrabKeyboard(display, CurrentTime);
  ::XSync(display, False);
}

// The new windows are there before the old ones go.
void LockScreen::CoverMonitors() {
  const auto display = Gdk::Display::get_default();
  std::vector<std::unique_ptr<LockWindow>> windows;
  const auto covered = Cairo::Region::create();
  for (int i = 0; i < display->get_n_monitors(); ++i) {
    Gdk::Rectangle place;
    display->get_monitor(i)->get_geometry(place);
    covered->do_union({place.get_x(), place.get_y(), place.get_width(), place.get_height()});
    windows.push_back(std::make_unique<LockWindow>(place, LockWindow::Content::kText));
    windows.back()->SetText(title_, text_);
  }
  // What belongs to no monitor that the toolkit knows may be visible all the same.
  const Gdk::Rectangle all = WholeScreen();
  const auto contained = covered->contains_rectangle({0, 0, all.get_width(), all.get_height()});
  if (contained != Cairo::REGION_OVERLAP_IN)
    windows.push_back(std::make_unique<LockWindow>(all, LockWindow::Content::kNone));

  for (const auto& window : windows) window->Cover();
  windows_.swap(windows);
  Raise();
}

// Compositing window managers keep the server from telling what is covered, and there is no news of
// a lost grab.
bool LockScreen::Guard() {
  Raise();
  const bool holds = HoldInput();
  if (holds != holdsInput_) {
    log_(holds ? "the locked screen holds the input again"
               : "another program has taken the input from the locked screen");
  }
  holdsInput_ = holds;
  return true;
}

// The first one above all, the others each below the one before: nothing shows through meanwhile.
void LockScreen::Raise() {
  lastRaise_ = steady_clock::now();
  std::vector<Window> windows;
  for (const auto& window : windows_) {
    windows.push_back(GDK_WINDOW_XID(window->get_window()->gobj()));
  }
  if (windows.empty()) return;
  Display* const display = ::gdk_x11_get_default_xdisplay();
  ::XRaiseWindow(display, windows.front());
  ::XRestackWindows(display, windows.data(), static_cast<int>(windows.size()));
  ::XFlush(display);
}

// At once, but not in a race with another window that wants to be the highest.
void LockScreen::RaiseSoon() {
  const auto since = steady_clock::now() - lastRaise_;
  if (since >= kRaiseEvery) {
    Raise();
    return;
  }
  if (raising_.connected()) return;
  raising_ = Glib::signal_timeout().connect(
      sigc::bind_return(sigc::mem_fun(*this, &LockScreen::Raise), false),
      static_cast<unsigned>(kRaiseEvery.count()));
}

bool LockScreen::IsOwn(unsigned long window) const {
  return std::any_of(windows_.begin(), windows_.end(), [&](const auto& own) {
    return GDK_WINDOW_XID(own->get_window()->gobj()) == window;
  });
}

GdkFilterReturn LockScreen::Watch(GdkXEvent* event, GdkEvent*, gpointer self) {
  const auto& news = *static_cast<const XEvent*>(event);
  auto& screen = *static_cast<LockScreen*>(self);
  const bool isRisen = (news.type == MapNotify && !screen.IsOwn(news.xmap.window)) ||
                       (news.type == ConfigureNotify && !screen.IsOwn(news.xconfigure.window)) ||
                       (news.type == CirculateNotify && !screen.IsOwn(news.xcirculate.window));
  if (isRisen) screen.RaiseSoon();
  return GDK_FILTER_CONTINUE;
}
