#include "agent/proxy/desktop.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include "agent/proxy/platform/windows/activity.h"
#include "agent/proxy/platform/windows/desktop_thread.h"
#include "agent/proxy/platform/windows/dialog_window.h"
#include "agent/proxy/platform/windows/handles.h"
#include "agent/proxy/platform/windows/image_loading.h"
#include "agent/proxy/platform/windows/lock_screen.h"
#include "agent/proxy/platform/windows/window_text.h"

namespace {

constexpr wchar_t kClass[] = L"ZelProxyDesktop";
constexpr UINT kWakeMessage = WM_APP;
constexpr UINT_PTR kLockTimer = 1;

bool HasVisibleStation() {
  USEROBJECTFLAGS flags{};
  DWORD size = 0;
  return GetUserObjectInformationW(GetProcessWindowStation(), UOI_FLAGS, &flags, sizeof flags,
                                   &size) &&
         (flags.dwFlags & WSF_VISIBLE) != 0 && GetSystemMetrics(SM_CMONITORS) > 0;
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
  struct OpenDialog {
    std::unique_ptr<DesktopDialog> window;
    Ended ended;
    bool cameWhileLocked = false;
    bool isFinished = false;
    ButtonId button = 0;
  };

  static LRESULT CALLBACK WindowProcedure(HWND, UINT, WPARAM, LPARAM);
  LRESULT OnMessage(UINT message, WPARAM wParam, LPARAM lParam);

  void DoUnlessEnded(const std::function<void()>& work);
  void OnWake();
  void TakeDownFinished();
  void RaiseNewest();
  void End();
  void Log(const char* line) noexcept;

  void Open(uint32_t id, const DialogContent& content, std::optional<Picture> picture, Ended ended);
  void TakeDown(uint32_t id);
  bool IsTakenByDialog(MSG& message);
  std::optional<Picture> PictureOf(const DialogContent& content);

  const DesktopTexts texts_;
  const DesktopLog log_;
  const ComOnThread com_{COINIT_APARTMENTTHREADED};
  // Hidden, but one of the top: only those are told of log-off.
  HWND window_ = nullptr;

  DesktopThread thread_;
  std::atomic<bool> isQuitAsked_ = false;
  std::atomic<bool> hasEnded_ = false;

  // Of the desktop's thread.
  std::map<uint32_t, OpenDialog> dialogs_;
  std::unique_ptr<LockScreen> lock_;
};

WindowsDesktop::WindowsDesktop(const DesktopTexts& texts, DesktopLog log)
    : texts_(texts), log_(std::move(log)) {
  if (!HasVisibleStation()) return;
  WNDCLASSEXW description{};
  description.cbSize = sizeof description;
  description.lpfnWndProc = WindowProcedure;
  description.hInstance = GetModuleHandleW(nullptr);
  description.lpszClassName = kClass;
  RegisterClassExW(&description);  // fails for a second desktop, which uses the first one's
  CreateWindowExW(WS_EX_TOOLWINDOW, kClass, L"zelproxy", WS_POPUP, 0, 0, 0, 0, nullptr, nullptr,
                  description.hInstance, this);
  thread_.SetWindow(window_, kWakeMessage);
}

WindowsDesktop::~WindowsDesktop() {
  End();
  if (window_) DestroyWindow(window_);
}

void WindowsDesktop::Run() {
  const HANDLE woken = thread_.Woken();
  while (true) {
    const DWORD reason =
        MsgWaitForMultipleObjectsEx(1, &woken, INFINITE, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
    if (reason == WAIT_OBJECT_0) OnWake();
    MSG message{};
    if (!PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) continue;
    if (message.message == WM_QUIT) break;
    if (IsTakenByDialog(message)) continue;
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  End();
}

void WindowsDesktop::Quit() {
  isQuitAsked_ = true;
  thread_.Wake();
}

void WindowsDesktop::OnWake() {
  if (isQuitAsked_) PostQuitMessage(0);
  try {
    TakeDownFinished();
    thread_.DoNext();
  } catch (const std::exception& failure) {
    Log(failure.what());
  }
}

// Nobody waits for this thread any more, and nothing is left on the screen.
void WindowsDesktop::End() {
  hasEnded_ = true;
  thread_.Close();
  lock_.reset();
  while (!dialogs_.empty()) TakeDown(dialogs_.begin()->first);
}

void WindowsDesktop::DoUnlessEnded(const std::function<void()>& work) {
  try {
    thread_.Do(work);
  } catch (const DesktopEnded&) {
    // Its windows went with it.
  }
}

void WindowsDesktop::Log(const char* line) noexcept {
  try {
    log_(line);
  } catch (const std::exception&) {
    // There is not even room for a line.
  }
}

void WindowsDesktop::ShowDialog(uint32_t id, const DialogContent& content, Ended ended) {
  // Here, so that the desktop's thread is not held up: the lock needs it.
  std::optional<Picture> picture = PictureOf(content);
  thread_.Do([&] { Open(id, content, std::move(picture), std::move(ended)); });
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
  const auto finished = [this, id](ButtonId button) {
    const auto found = dialogs_.find(id);
    if (found == dialogs_.end()) return;
    found->second.isFinished = true;
    found->second.button = button;
    // Later: this is called from within the window.
    thread_.Wake();
  };
  OpenDialog dialog{std::make_unique<DesktopDialog>(content, texts_, std::move(picture),
                                                    static_cast<int>(dialogs_.size()), finished),
                    std::move(ended), lock_ != nullptr};
  DesktopDialog& window = *dialog.window;
  const auto place = dialogs_.emplace(id, std::move(dialog)).first;
  try {
    if (lock_) window.SetCovered(true);
    window.Show(lock_ ? lock_->Bottom() : nullptr);
  } catch (...) {
    dialogs_.erase(place);
    throw;
  }
}

void WindowsDesktop::CloseDialog(uint32_t id) {
  DoUnlessEnded([&] { TakeDown(id); });
}

void WindowsDesktop::TakeDown(uint32_t id) {
  const auto found = dialogs_.find(id);
  if (found == dialogs_.end()) return;
  OpenDialog dialog = std::move(found->second);
  dialogs_.erase(found);
  dialog.window.reset();
  if (dialog.ended) dialog.ended(dialog.button);
}

void WindowsDesktop::TakeDownFinished() {
  const auto isFinished = [](const auto& entry) { return entry.second.isFinished; };
  while (true) {
    const auto found = std::find_if(dialogs_.begin(), dialogs_.end(), isFinished);
    if (found == dialogs_.end()) return;
    TakeDown(found->first);
  }
}

void WindowsDesktop::Lock() {
  thread_.Do([&] {
    if (lock_) return;
    LockFace face{LineForWindow(texts_.lockTitle), LinesForWindow(texts_.lockText),
                  texts_.isRightToLeft};
    lock_ = std::make_unique<LockScreen>(window_, kLockTimer, std::move(face));
    for (const auto& [id, dialog] : dialogs_) dialog.window->SetCovered(true);
  });
}

void WindowsDesktop::SetLockText(const std::string& title, const std::string& text) {
  thread_.Do([&] {
    if (lock_) lock_->SetText(LineForWindow(title), LinesForWindow(text));
  });
}

void WindowsDesktop::Unlock() {
  DoUnlessEnded([&] {
    if (!lock_) return;
    // While the lock is in front: the system lets its program pass that on, and nobody else's.
    RaiseNewest();
    lock_.reset();
    for (const auto& [id, dialog] : dialogs_) dialog.window->SetCovered(false);
  });
}

// What came while nobody could see it is where a dialog that comes now would be.
void WindowsDesktop::RaiseNewest() {
  DesktopDialog* newest = nullptr;
  for (auto& [id, dialog] : dialogs_) {
    if (std::exchange(dialog.cameWhileLocked, false)) newest = dialog.window.get();
  }
  if (newest) newest->ComeToTheFront();
}

UserActivity WindowsDesktop::Activity() {
  if (hasEnded_) throw DesktopEnded();
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
    self->Log(failure.what());
    return 0;
  }
}

LRESULT WindowsDesktop::OnMessage(UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case kWakeMessage:
      OnWake();
      return 0;
    case WM_CLOSE:
      PostQuitMessage(0);
      return 0;
    case WM_TIMER:
      if (lock_ && wParam == kLockTimer) lock_->OnTimer();
      return 0;
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
