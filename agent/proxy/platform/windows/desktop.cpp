#include "agent/proxy/desktop.h"

#include <windows.h>

#include <algorithm>
#include <deque>
#include <exception>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "agent/libZel/user_sessions.h"
#include "agent/proxy/platform/windows/dialog_window.h"
#include "agent/proxy/platform/windows/handles.h"
#include "agent/proxy/platform/windows/image_loading.h"
#include "agent/proxy/platform/windows/lock_screen.h"
#include "agent/proxy/platform/windows/window_text.h"

namespace {

constexpr wchar_t kClass[] = L"ZelProxyDesktop";
constexpr UINT kTasksMessage = WM_APP;
constexpr UINT kQuitMessage = WM_APP + 1;
// With the dialog's number.
constexpr UINT kFinishedMessage = WM_APP + 2;
constexpr UINT_PTR kLockTimer = 1;
constexpr char kHasEnded[] = "the proxy shows no windows any more";

bool HasVisibleStation() {
  USEROBJECTFLAGS flags{};
  DWORD size = 0;
  return GetUserObjectInformationW(GetProcessWindowStation(), UOI_FLAGS, &flags, sizeof flags,
                                   &size) &&
         (flags.dwFlags & WSF_VISIBLE) != 0 && GetSystemMetrics(SM_CMONITORS) > 0;
}

std::chrono::milliseconds IdleTime() {
  LASTINPUTINFO last{sizeof(LASTINPUTINFO), 0};
  if (!GetLastInputInfo(&last)) return std::chrono::milliseconds(0);
  // No input since the session began, as far as the system knows: not that nobody is there.
  if (last.dwTime == 0) return std::chrono::milliseconds(0);
  // Both count modulo 2^32. The input's time may be a little ahead of the clock.
  const DWORD idleMs = GetTickCount() - last.dwTime;
  constexpr DWORD kAheadMs = 60000;
  return std::chrono::milliseconds(idleMs > MAXDWORD - kAheadMs ? 0 : idleMs);
}

bool IsSessionLocked() {
  DWORD number = 0;
  if (!ProcessIdToSessionId(GetCurrentProcessId(), &number)) return false;
  const std::string own = std::to_string(number);
  const std::vector<UserSession> sessions = UserSessions();
  return std::any_of(sessions.begin(), sessions.end(), [&](const UserSession& session) {
    return session.id == own && session.isLocked;
  });
}

bool IsScreenSaverOn() {
  BOOL isRunning = FALSE;
  return SystemParametersInfoW(SPI_GETSCREENSAVERRUNNING, 0, &isRunning, 0) && isRunning;
}

class WindowsDesktop final : public Desktop {
 public:
  /// Without a window of its own where there is no desktop.
  WindowsDesktop(const DesktopTexts& texts, DesktopLog log);
  ~WindowsDesktop() override;

  bool IsUsable() const { return window_ != nullptr; }

  void ShowDialog(uint32_t id, const DialogContent& content, Ended ended) override;
  void CloseDialog(uint32_t id) override;
  void Lock() override;
  void SetLockText(const std::string& title, const std::string& text) override;
  void Unlock() override;
  UserActivity Activity() override;
  void Run() override;
  void Quit() override;

 private:
  struct Task {
    std::function<void()> work;
    // Whether it was done, or what it threw.
    std::promise<bool> done;
  };
  struct OpenDialog {
    std::unique_ptr<DialogWindow> window;
    Ended ended;
    ButtonId button = 0;
  };

  static LRESULT CALLBACK WindowProcedure(HWND, UINT, WPARAM, LPARAM);
  LRESULT OnMessage(UINT message, WPARAM wParam, LPARAM lParam);

  bool DoOnThread(std::function<void()> work);
  void Require(std::function<void()> work);
  void DoTasks();
  void End();

  void Open(uint32_t id, const DialogContent& content, std::optional<Picture> picture, Ended ended);
  void TakeDown(uint32_t id);
  bool IsTakenByDialog(MSG& message);
  std::optional<Picture> PictureOf(const DialogContent& content);

  const DesktopTexts texts_;
  const DesktopLog log_;
  const DWORD thread_ = GetCurrentThreadId();
  const ComOnThread com_{COINIT_APARTMENTTHREADED};
  // Hidden, but one of the top: only those are told of log-off.
  HWND window_ = nullptr;

  std::mutex mutex_;
  std::deque<Task> tasks_;
  bool hasEnded_ = false;

  // Of the desktop's thread.
  std::map<uint32_t, OpenDialog> dialogs_;
  std::unique_ptr<LockScreen> lock_;
  std::string lockTitle_;
  std::string lockText_;
};

WindowsDesktop::WindowsDesktop(const DesktopTexts& texts, DesktopLog log)
    : texts_(texts), log_(std::move(log)), lockTitle_(texts.lockTitle), lockText_(texts.lockText) {
  if (!HasVisibleStation()) return;
  WNDCLASSEXW description{};
  description.cbSize = sizeof description;
  description.lpfnWndProc = WindowProcedure;
  description.hInstance = GetModuleHandleW(nullptr);
  description.lpszClassName = kClass;
  RegisterClassExW(&description);  // fails for a second desktop, which uses the first one's
  CreateWindowExW(WS_EX_TOOLWINDOW, kClass, L"zelproxy", WS_POPUP, 0, 0, 0, 0, nullptr, nullptr,
                  description.hInstance, this);
}

WindowsDesktop::~WindowsDesktop() {
  End();
  if (window_) DestroyWindow(window_);
}

void WindowsDesktop::Run() {
  MSG message{};
  while (GetMessageW(&message, nullptr, 0, 0) > 0) {
    if (IsTakenByDialog(message)) continue;
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  End();
}

void WindowsDesktop::Quit() {
  PostMessageW(window_, kQuitMessage, 0, 0);
}

// Nobody waits for this thread any more, and nothing is left on the screen.
void WindowsDesktop::End() {
  std::deque<Task> dropped;
  {
    const std::lock_guard lock(mutex_);
    hasEnded_ = true;
    dropped.swap(tasks_);
  }
  for (Task& task : dropped) task.done.set_value(false);
  lock_.reset();
  while (!dialogs_.empty()) TakeDown(dialogs_.begin()->first);
}

// Does `work` on the desktop's thread and waits for it; throws what it throws. False when the
// desktop has ended.
bool WindowsDesktop::DoOnThread(std::function<void()> work) {
  std::future<bool> done;
  const bool isOwnThread = GetCurrentThreadId() == thread_;
  {
    const std::lock_guard lock(mutex_);
    if (hasEnded_) return false;
    if (!isOwnThread) {
      tasks_.push_back({std::move(work), {}});
      done = tasks_.back().done.get_future();
      // One message for all that are waiting: the system's queue is limited.
      if (tasks_.size() == 1) PostMessageW(window_, kTasksMessage, 0, 0);
    }
  }
  if (!isOwnThread) return done.get();
  work();
  return true;
}

void WindowsDesktop::Require(std::function<void()> work) {
  if (!DoOnThread(std::move(work))) throw std::runtime_error(kHasEnded);
}

void WindowsDesktop::DoTasks() {
  while (true) {
    Task task;
    {
      const std::lock_guard lock(mutex_);
      if (tasks_.empty()) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    try {
      task.work();
      task.done.set_value(true);
    } catch (...) {
      task.done.set_exception(std::current_exception());
    }
  }
}

void WindowsDesktop::ShowDialog(uint32_t id, const DialogContent& content, Ended ended) {
  // Here, so that the desktop's thread is not held up: the lock needs it.
  std::optional<Picture> picture = PictureOf(content);
  Require([&] { Open(id, content, std::move(picture), std::move(ended)); });
}

std::optional<Picture> WindowsDesktop::PictureOf(const DialogContent& content) {
  if (content.imagePath.empty()) return std::nullopt;
  try {
    return LoadPicture(content.imagePath);
  } catch (const std::exception& failure) {
    log_("the image of a dialog is left out: " + content.imagePath + ": " + failure.what());
    return std::nullopt;
  }
}

void WindowsDesktop::Open(uint32_t id, const DialogContent& content, std::optional<Picture> picture,
                          Ended ended) {
  if (dialogs_.contains(id)) throw std::runtime_error("there is a dialog with this number already");
  const HWND desktop = window_;
  const auto finished = [this, desktop, id](ButtonId button) {
    const auto found = dialogs_.find(id);
    if (found == dialogs_.end()) return;
    found->second.button = button;
    // Later: this is called from within the window.
    PostMessageW(desktop, kFinishedMessage, id, 0);
  };
  OpenDialog dialog{std::make_unique<DialogWindow>(content, texts_, std::move(picture),
                                                   static_cast<int>(dialogs_.size()), finished),
                    std::move(ended)};
  DialogWindow& window = *dialog.window;
  dialogs_.emplace(id, std::move(dialog));
  if (lock_) window.SetCovered(true);
  window.Show(lock_ ? lock_->Bottom() : nullptr);
}

void WindowsDesktop::CloseDialog(uint32_t id) {
  DoOnThread([&] { TakeDown(id); });
}

void WindowsDesktop::TakeDown(uint32_t id) {
  const auto found = dialogs_.find(id);
  if (found == dialogs_.end()) return;
  OpenDialog dialog = std::move(found->second);
  dialogs_.erase(found);
  dialog.window.reset();
  if (dialog.ended) dialog.ended(dialog.button);
}

void WindowsDesktop::Lock() {
  Require([&] {
    if (lock_) return;
    lock_ = std::make_unique<LockScreen>(window_, kLockTimer, LineForWindow(lockTitle_),
                                         LinesForWindow(lockText_), texts_.isRightToLeft);
    for (const auto& [id, dialog] : dialogs_) dialog.window->SetCovered(true);
  });
}

void WindowsDesktop::SetLockText(const std::string& title, const std::string& text) {
  Require([&] {
    lockTitle_ = title;
    lockText_ = text;
    if (lock_) lock_->SetText(LineForWindow(title), LinesForWindow(text));
  });
}

void WindowsDesktop::Unlock() {
  DoOnThread([&] {
    if (!lock_) return;
    lock_.reset();
    for (const auto& [id, dialog] : dialogs_) dialog.window->SetCovered(false);
  });
}

UserActivity WindowsDesktop::Activity() {
  {
    const std::lock_guard lock(mutex_);
    if (hasEnded_) throw std::runtime_error(kHasEnded);
  }
  return {IdleTime(), IsSessionLocked() || IsScreenSaverOn()};
}

bool WindowsDesktop::IsTakenByDialog(MSG& message) {
  for (const auto& [id, dialog] : dialogs_) {
    if (dialog.window->Takes(message)) return true;
  }
  return false;
}

LRESULT CALLBACK WindowsDesktop::WindowProcedure(HWND window, UINT message, WPARAM wParam,
                                                 LPARAM lParam) {
  if (message == WM_NCCREATE) {
    const auto* const creation = reinterpret_cast<CREATESTRUCTW*>(lParam);
    auto* const created = static_cast<WindowsDesktop*>(creation->lpCreateParams);
    created->window_ = window;
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(created));
  }
  auto* const self = reinterpret_cast<WindowsDesktop*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  if (!self) return DefWindowProcW(window, message, wParam, lParam);
  if (message == WM_NCDESTROY) {
    self->window_ = nullptr;
    SetWindowLongPtrW(window, GWLP_USERDATA, 0);
    return 0;
  }
  try {
    return self->OnMessage(message, wParam, lParam);
  } catch (const std::exception& failure) {
    // No exception may pass the system's code.
    self->log_(failure.what());
    return 0;
  }
}

LRESULT WindowsDesktop::OnMessage(UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case kTasksMessage:
      DoTasks();
      return 0;
    case kQuitMessage:
    case WM_CLOSE:
      PostQuitMessage(0);
      return 0;
    case kFinishedMessage:
      TakeDown(static_cast<uint32_t>(wParam));
      return 0;
    case WM_TIMER:
    case WM_DISPLAYCHANGE:
      if (lock_) lock_->OnTimer();
      return 0;
    case WM_ENDSESSION:
      if (wParam) {
        // The system may end the program as soon as this returns.
        End();
        PostQuitMessage(0);
      }
      return 0;
    default:
      return DefWindowProcW(window_, message, wParam, lParam);
  }
}

}  // namespace

std::unique_ptr<Desktop> MakeDesktop(const DesktopTexts& texts, DesktopLog log) {
  auto desktop = std::make_unique<WindowsDesktop>(texts, std::move(log));
  if (!desktop->IsUsable()) return nullptr;
  return desktop;
}
