#include "agent/proxy/platform/windows/lock_screen.h"

#include <algorithm>
#include <array>
#include <exception>
#include <stdexcept>
#include <utility>

#include "agent/proxy/platform/windows/activity.h"
#include "agent/proxy/platform/windows/window_text.h"

namespace {

constexpr wchar_t kClass[] = L"ZelProxyLock";
constexpr UINT kFrontMs = 250;
// The hooks are set anew from time to time: the system removes them without a word when it had to
// wait for them.
constexpr unsigned kTicksPerHook = 8;
// Marks this program's own input.
constexpr ULONG_PTR kOwnInput = 0x5A454C;

constexpr unsigned kKeys = 256;
// Those that were down when the lock came: the programs below must learn that they were released.
std::array<bool, kKeys> heldKeys;

void RememberHeldKeys() {
  for (unsigned key = 0; key < kKeys; ++key) {
    heldKeys[key] = GetAsyncKeyState(static_cast<int>(key)) < 0;
  }
  // That was the state of the buttons themselves, while the hook is told what they mean.
  if (GetSystemMetrics(SM_SWAPBUTTON)) std::swap(heldKeys[VK_LBUTTON], heldKeys[VK_RBUTTON]);
}

// Whether this release is of a key or button from before the lock; only the first one is.
bool IsOldRelease(unsigned key) {
  return key < kKeys && std::exchange(heldKeys[key], false);
}

unsigned ButtonReleasedBy(WPARAM message, DWORD data) {
  switch (message) {
    case WM_LBUTTONUP:
      return VK_LBUTTON;
    case WM_RBUTTONUP:
      return VK_RBUTTON;
    case WM_MBUTTONUP:
      return VK_MBUTTON;
    case WM_XBUTTONUP:
      return HIWORD(data) == XBUTTON1 ? VK_XBUTTON1 : VK_XBUTTON2;
    default:
      return kKeys;
  }
}

LRESULT CALLBACK OnKeyboard(int code, WPARAM message, LPARAM lParam) {
  if (code != HC_ACTION) return CallNextHookEx(nullptr, code, message, lParam);
  const auto* const key = reinterpret_cast<const KBDLLHOOKSTRUCT*>(lParam);
  const bool isRelease = message == WM_KEYUP || message == WM_SYSKEYUP;
  if (isRelease && IsOldRelease(key->vkCode)) {
    return CallNextHookEx(nullptr, code, message, lParam);
  }
  return 1;
}

LRESULT CALLBACK OnPointer(int code, WPARAM message, LPARAM lParam) {
  if (code != HC_ACTION) return CallNextHookEx(nullptr, code, message, lParam);
  const auto* const event = reinterpret_cast<const MSLLHOOKSTRUCT*>(lParam);
  // Moves go through, so that the system knows that somebody is there; the pointer is hidden.
  const bool goesThrough = message == WM_MOUSEMOVE || event->dwExtraInfo == kOwnInput ||
                           IsOldRelease(ButtonReleasedBy(message, event->mouseData));
  return goesThrough ? CallNextHookEx(nullptr, code, message, lParam) : 1;
}

BOOL CALLBACK AddMonitor(HMONITOR monitor, HDC, LPRECT, LPARAM places) {
  MONITORINFO description{};
  description.cbSize = sizeof description;
  if (GetMonitorInfoW(monitor, &description)) {
    reinterpret_cast<std::vector<RECT>*>(places)->push_back(description.rcMonitor);
  }
  return TRUE;
}

std::vector<RECT> Monitors() {
  std::vector<RECT> places;
  EnumDisplayMonitors(nullptr, nullptr, AddMonitor, reinterpret_cast<LPARAM>(&places));
  return places;
}

void TakeForeground(HWND window) {
  if (SetForegroundWindow(window) && GetForegroundWindow() == window) return;
  SendOwnInput(kOwnInput);
  SetForegroundWindow(window);
}

}  // namespace

LockScreen::LockScreen(HWND owner, UINT_PTR timer, LockFace face)
    : owner_(owner), timer_(timer), painter_(std::move(face)) {
  RememberHeldKeys();
  // The hooks first: what is typed while the windows appear is swallowed.
  if (!SetHooks()) throw std::runtime_error("the system does not let the lock hold the input");
  try {
    CoverMonitors();
    if (covers_.empty()) throw std::runtime_error("there is no monitor to lock");
    if (!SetTimer(owner_, timer_, kFrontMs, nullptr)) {
      throw std::runtime_error("the system has no timer for the lock");
    }
    Announce();
    ComeToTheFront();
  } catch (...) {
    KillTimer(owner_, timer_);
    DestroyCovers();
    throw;
  }
}

LockScreen::~LockScreen() {
  KillTimer(owner_, timer_);
  DestroyCovers();
}

bool LockScreen::SetHooks() {
  const HINSTANCE instance = GetModuleHandleW(nullptr);
  Hook keyboard(SetWindowsHookExW(WH_KEYBOARD_LL, OnKeyboard, instance, 0));
  Hook pointer(SetWindowsHookExW(WH_MOUSE_LL, OnPointer, instance, 0));
  if (!keyboard || !pointer) return false;
  keyboard_ = std::move(keyboard);
  pointer_ = std::move(pointer);
  return true;
}

void LockScreen::CoverMonitors() {
  const std::vector<RECT> places = Monitors();
  // While a monitor is being plugged in there may be none for a moment.
  if (places.empty()) return;
  for (size_t i = 0; i < places.size(); ++i) {
    if (i == covers_.size()) {
      MakeCover(places[i]);
    } else if (!EqualRect(&covers_[i].place, &places[i])) {
      covers_[i].place = places[i];
      InvalidateRect(covers_[i].window, nullptr, FALSE);
    }
  }
  while (covers_.size() > places.size()) {
    const HWND surplus = covers_.back().window;
    covers_.pop_back();
    DestroyWindow(surplus);
  }
}

void LockScreen::MakeCover(const RECT& place) {
  static const ATOM registered = [] {
    WNDCLASSEXW description{};
    description.cbSize = sizeof description;
    description.style = CS_HREDRAW | CS_VREDRAW;
    description.lpfnWndProc = WindowProcedure;
    description.hInstance = GetModuleHandleW(nullptr);
    description.lpszClassName = kClass;
    return RegisterClassExW(&description);
  }();
  const HWND window =
      registered
          ? CreateWindowExW(WS_EX_TOPMOST | WS_EX_TOOLWINDOW, kClass, L"", WS_POPUP, place.left,
                            place.top, place.right - place.left, place.bottom - place.top, owner_,
                            nullptr, GetModuleHandleW(nullptr), this)
          : nullptr;
  if (!window) throw std::runtime_error("the windows of the lock cannot be made");
  covers_.push_back({window, place});
  SetWindowPos(window, HWND_TOPMOST, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_SHOWWINDOW);
  UpdateWindow(window);
}

void LockScreen::DestroyCovers() {
  for (const Cover& cover : std::exchange(covers_, {})) DestroyWindow(cover.window);
}

void LockScreen::SetText(std::wstring title, std::wstring text) {
  painter_.SetFace({std::move(title), std::move(text), painter_.Face().isRightToLeft});
  Announce();
  for (const Cover& cover : covers_) {
    InvalidateRect(cover.window, nullptr, FALSE);
    UpdateWindow(cover.window);
  }
}

// Screen readers take the window's own text, which nothing else shows, for what is painted in it.
void LockScreen::Announce() {
  const std::wstring words = painter_.Face().title + L"\r\n" + painter_.Face().text;
  for (const Cover& cover : covers_) SetWindowTextW(cover.window, words.c_str());
}

void LockScreen::OnTimer() {
  // First what cannot fail.
  if (++ticks_ % kTicksPerHook == 0) SetHooks();
  ComeToTheFront();
  const size_t before = covers_.size();
  CoverMonitors();
  if (covers_.size() != before) Announce();
}

void LockScreen::ComeToTheFront() {
  for (const Cover& cover : covers_) {
    const RECT& place = cover.place;
    SetWindowPos(cover.window, HWND_TOPMOST, place.left, place.top, place.right - place.left,
                 place.bottom - place.top, SWP_NOACTIVATE | SWP_SHOWWINDOW);
  }
  const HWND foreground = GetForegroundWindow();
  const bool isInFront = std::any_of(covers_.begin(), covers_.end(), [&](const Cover& cover) {
    return cover.window == foreground;
  });
  if (!isInFront && !covers_.empty()) TakeForeground(covers_.front().window);
}

HWND LockScreen::Bottom() const {
  // Each one was put on top of those before it.
  return covers_.front().window;
}

LRESULT CALLBACK LockScreen::WindowProcedure(HWND window, UINT message, WPARAM wParam,
                                             LPARAM lParam) {
  if (message == WM_NCCREATE) {
    const auto* const creation = reinterpret_cast<CREATESTRUCTW*>(lParam);
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(creation->lpCreateParams));
  }
  auto* const self = reinterpret_cast<LockScreen*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  if (!self) return DefWindowProcW(window, message, wParam, lParam);
  try {
    return self->OnMessage(window, message, wParam, lParam);
  } catch (const std::exception&) {
    // No exception may pass the system's code. What was being painted stays incomplete.
    return 0;
  }
}

LRESULT LockScreen::OnMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_CLOSE:
    case WM_SYSCOMMAND:
    case WM_CONTEXTMENU:
      return 0;
    case WM_SETCURSOR:
      SetCursor(nullptr);
      return TRUE;
    case WM_DPICHANGED:
      InvalidateRect(window, nullptr, FALSE);
      return 0;
    case WM_ACTIVATE:
      // Not from within: the other window is just being activated.
      if (LOWORD(wParam) == WA_INACTIVE) PostMessageW(owner_, WM_TIMER, timer_, 0);
      return 0;
    case WM_ERASEBKGND:
      return 1;
    case WM_PAINT:
      Paint(window);
      return 0;
    default:
      return DefWindowProcW(window, message, wParam, lParam);
  }
}

void LockScreen::Paint(HWND window) {
  const WindowPainting painting(window);
  RECT area{};
  GetClientRect(window, &area);
  painter_.Paint(painting.Context(), area, GetDpiForWindow(window));
}
