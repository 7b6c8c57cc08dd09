#include "agent/proxy/desktop.h"

#include <glibmm/main.h>
#include <gtkmm/main.h>

#include <atomic>
#include <future>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include "agent/proxy/platform/posix/activity.h"
#include "agent/proxy/platform/posix/desktop_thread.h"
#include "agent/proxy/platform/posix/dialog_window.h"
#include "agent/proxy/platform/posix/image_loading.h"
#include "agent/proxy/platform/posix/lock_screen.h"

#include <gdk/gdkx.h>  // last: it defines macros with common names

namespace {

using std::chrono::milliseconds, std::chrono::seconds, std::chrono::steady_clock;

constexpr const char* kProgram = "zelproxy";
constexpr seconds kWaitForWindow{5};
constexpr seconds kWaitForInput{3};
constexpr milliseconds kBetweenAttempts{50};
constexpr int kCascadeStep = 26;
constexpr int kCascadeLength = 8;

// GTK's own would end the process, too, with a message that mentions window managers.
int OnDisplayLost(Display*) {
  std::fputs("zelproxy: the connection to the display is lost\n", stderr);
  std::fflush(stderr);
  ::_exit(1);
}

bool IsWayland() {
  const char* const type = std::getenv("XDG_SESSION_TYPE");
  return type && std::string(type) == "wayland";
}

bool IsInput(GdkEventType type) {
  switch (type) {
    case GDK_KEY_PRESS:
    case GDK_KEY_RELEASE:
    case GDK_BUTTON_PRESS:
    case GDK_2BUTTON_PRESS:
    case GDK_3BUTTON_PRESS:
    case GDK_BUTTON_RELEASE:
    case GDK_TOUCH_BEGIN:
    case GDK_TOUCH_UPDATE:
    case GDK_TOUCH_END:
      return true;
    default:
      return false;
  }
}

class GtkDesktop final : public Desktop {
 public:
  GtkDesktop(const DesktopTexts& texts, DesktopLog log)
      : texts_(texts),
        log_(std::move(log)),
        scale_(::gdk_monitor_get_scale_factor(FirstMonitor())),
        lock_(log_) {
    ::gdk_event_handler_set(HandleEvent, this, nullptr);
  }

  ~GtkDesktop() override {
    TakeAllDown();
    ::gdk_event_handler_set([](GdkEvent* event, gpointer) { ::gtk_main_do_event(event); }, nullptr,
                            nullptr);
  }

  void ShowDialog(uint32_t id, const DialogContent& content, Ended ended) override;
  void CloseDialog(uint32_t id) override;
  void Lock() override;
  void SetLockText(const std::string& title, const std::string& text) override;
  void Unlock() override;
  UserActivity Activity() override;
  void Run() override;
  void Quit() override;

 private:
  struct Dialog {
    std::unique_ptr<DesktopDialog> window;
    Ended ended;
    std::shared_ptr<std::promise<void>> appeared;
    bool hasAppeared = false;
  };

  static GdkMonitor* FirstMonitor() {
    return ::gdk_display_get_monitor(::gdk_display_get_default(), 0);
  }

  static void HandleEvent(GdkEvent* event, gpointer self);
  std::optional<LoadedImage> ImageOf(const DialogContent& content) const;
  void MakeDialog(uint32_t id, const DialogContent& content,
                  const std::optional<LoadedImage>& image, Ended ended,
                  const std::shared_ptr<std::promise<void>>& appeared);
  void NoteAppearance(uint32_t id);
  void EndDialog(uint32_t id, ButtonId button);
  void BuryLater(std::unique_ptr<DesktopDialog> window);
  void TakeAllDown();

  const DesktopTexts texts_;
  const DesktopLog log_;
  const int scale_;
  DesktopThread thread_;
  std::atomic<bool> isEnding_ = false;

  // Of the desktop's thread:
  std::map<uint32_t, Dialog> dialogs_;
  unsigned shownDialogs_ = 0;
  LockScreen lock_;
};

// What the person did before a dialog could be read is not for the dialog.
void GtkDesktop::HandleEvent(GdkEvent* event, gpointer self) {
  if (IsInput(event->type) && event->any.window) {
    gpointer widget = nullptr;
    ::gdk_window_get_user_data(::gdk_window_get_toplevel(event->any.window), &widget);
    for (auto& [id, dialog] : static_cast<GtkDesktop*>(self)->dialogs_) {
      const bool isItsOwn = static_cast<gpointer>(dialog.window->gobj()) == widget;
      if (isItsOwn && dialog.window->IsTooEarly(*event)) return;
    }
  }
  ::gtk_main_do_event(event);
}

std::optional<LoadedImage> GtkDesktop::ImageOf(const DialogContent& content) const {
  if (content.imagePath.empty()) return std::nullopt;
  try {
    return LoadImage(content.imagePath, scale_);
  } catch (const std::exception& failure) {
    log_("image " + content.imagePath + " is left out: " + failure.what());
    return std::nullopt;
  }
}

void GtkDesktop::ShowDialog(uint32_t id, const DialogContent& content, Ended ended) {
  const auto image = ImageOf(content);  // on this thread: it may take a while
  const auto appeared = std::make_shared<std::promise<void>>();
  std::future<void> appearance = appeared->get_future();
  thread_.Do([&] { MakeDialog(id, content, image, std::move(ended), appeared); });
  // A window manager may not answer; the window then is as good as there.
  if (!thread_.IsCurrent()) appearance.wait_for(kWaitForWindow);
}

void GtkDesktop::MakeDialog(uint32_t id, const DialogContent& content,
                            const std::optional<LoadedImage>& image, Ended ended,
                            const std::shared_ptr<std::promise<void>>& appeared) {
  if (isEnding_) throw DesktopEnded();
  if (dialogs_.contains(id)) throw std::logic_error("a dialog of this number is on the screen");
  auto window = std::make_unique<DesktopDialog>(
      content, image, texts_.timeLeft,
      DesktopDialog::Events{[this, id] { NoteAppearance(id); },
                            [this, id](ButtonId button) { EndDialog(id, button); }});
  const int place = static_cast<int>(shownDialogs_++ % kCascadeLength);
  if (dialogs_.empty()) shownDialogs_ = 1;
  const int offset = dialogs_.empty() ? 0 : place * kCascadeStep;
  DesktopDialog& shown = *window;
  shown.SetCovered(lock_.IsLocked());
  dialogs_[id] = {std::move(window), std::move(ended), appeared};
  try {
    shown.Appear(offset);
  } catch (...) {
    dialogs_.erase(id);  // or nobody would take it down
    throw;
  }
}

void GtkDesktop::NoteAppearance(uint32_t id) {
  const auto dialog = dialogs_.find(id);
  if (dialog == dialogs_.end() || std::exchange(dialog->second.hasAppeared, true)) return;
  dialog->second.appeared->set_value();
}

void GtkDesktop::EndDialog(uint32_t id, ButtonId button) {
  const auto found = dialogs_.find(id);
  if (found == dialogs_.end()) return;
  NoteAppearance(id);
  Dialog dialog = std::move(found->second);
  dialogs_.erase(found);
  dialog.window->hide();
  ::gdk_display_sync(::gdk_display_get_default());
  BuryLater(std::move(dialog.window));
  try {
    dialog.ended(button);
  } catch (const std::exception& failure) {
    log_(std::string("the end of a dialog: ") + failure.what());
  }
}

// It may be in the middle of one of its own events.
void GtkDesktop::BuryLater(std::unique_ptr<DesktopDialog> window) {
  const std::shared_ptr<DesktopDialog> last = std::move(window);
  Glib::signal_idle().connect([last] { return false; });
}

void GtkDesktop::CloseDialog(uint32_t id) {
  try {
    thread_.Do([&] { EndDialog(id, 0); });
  } catch (const DesktopEnded&) {
    // With all its dialogs.
  }
}

void GtkDesktop::Lock() {
  if (IsWayland()) {
    throw std::runtime_error(
        "a Wayland session cannot be locked: its windows cannot hold keyboard and pointer");
  }
  const auto until = steady_clock::now() + kWaitForInput;
  for (;;) {
    bool isLocked = false;
    thread_.Do([&] {
      if (isEnding_) throw DesktopEnded();
      isLocked = lock_.TryLock(texts_.lockTitle, texts_.lockText);
      if (!isLocked) return;
      for (auto& [id, dialog] : dialogs_) dialog.window->SetCovered(true);
    });
    if (isLocked) return;
    if (steady_clock::now() >= until) break;
    std::this_thread::sleep_for(kBetweenAttempts);
  }
  throw std::runtime_error("another program holds keyboard or pointer, a menu perhaps");
}

void GtkDesktop::SetLockText(const std::string& title, const std::string& text) {
  thread_.Do([&] { lock_.SetText(title, text); });
}

void GtkDesktop::Unlock() {
  try {
    thread_.Do([&] {
      if (!lock_.IsLocked()) return;
      lock_.Unlock();
      for (auto& [id, dialog] : dialogs_) dialog.window->SetCovered(false);
    });
  } catch (const DesktopEnded&) {
    // And the screen is free.
  }
}

UserActivity GtkDesktop::Activity() {
  ServerActivity server;
  thread_.Do([&] { server = AskServerForActivity(); });
  return {server.idle, server.isScreenSaverOn || IsSessionLocked()};
}

void GtkDesktop::Run() {
  while (!isEnding_) ::g_main_context_iteration(nullptr, TRUE);
  TakeAllDown();
}

void GtkDesktop::Quit() {
  isEnding_ = true;
  ::g_main_context_wakeup(nullptr);
}

void GtkDesktop::TakeAllDown() {
  isEnding_ = true;
  while (!dialogs_.empty()) EndDialog(dialogs_.begin()->first, 0);
  lock_.Unlock();
  ::gdk_display_sync(::gdk_display_get_default());
  thread_.Close();
}

}  // namespace

std::unique_ptr<Desktop> MakeDesktop(const DesktopTexts& texts, DesktopLog log) {
  ::g_set_prgname(kProgram);
  ::gdk_set_allowed_backends("x11");
  ::gtk_disable_setlocale();
  if (!::gtk_init_check(nullptr, nullptr)) return nullptr;

  ::gdk_set_program_class(kProgram);  // GTK has set one of its own
  Gtk::Main::init_gtkmm_internals();
  ::XSetIOErrorHandler(OnDisplayLost);
  ::gtk_widget_set_default_direction(texts.isRightToLeft ? GTK_TEXT_DIR_RTL : GTK_TEXT_DIR_LTR);
  return std::make_unique<GtkDesktop>(texts, std::move(log));
}
