#include "agent/proxy/platform/windows/dialog_window.h"

#include <commctrl.h>
#include <oleacc.h>
#include <windowsx.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "agent/proxy/long_lines.h"
#include "agent/proxy/platform/windows/window_text.h"

namespace {

constexpr wchar_t kClass[] = L"ZelProxyDialog";
constexpr ULONGLONG kDeafMs = 500;
constexpr UINT_PTR kTickTimer = 1;
constexpr UINT kTickMs = 1000;
constexpr UINT_PTR kSubclass = 1;
// In the state of a message about a key: it is held down.
constexpr LPARAM kIsRepeated = LPARAM{1} << 30;

// The control takes seconds for a single line of some ten thousand letters.
constexpr LineLimits kLineLimits{1000, 1100};

// While it is measured, pixels.
constexpr int kFirstSide = 300;

HINSTANCE Instance() {
  return GetModuleHandleW(nullptr);
}

bool IsPointerInput(UINT message) {
  const bool isButtonOrWheel = message > WM_MOUSEMOVE && message <= WM_MOUSELAST;
  const bool isOnTheFrame = message >= WM_NCLBUTTONDOWN && message <= WM_NCXBUTTONDBLCLK;
  return isButtonOrWheel || isOnTheFrame;
}

bool IsKeyInput(UINT message) {
  return message >= WM_KEYFIRST && message <= WM_KEYLAST;
}

// The part of it that windows may take.
RECT MonitorOfPointer() {
  POINT pointer{};
  GetCursorPos(&pointer);
  MONITORINFO monitor{};
  monitor.cbSize = sizeof monitor;
  GetMonitorInfoW(MonitorFromPoint(pointer, MONITOR_DEFAULTTOPRIMARY), &monitor);
  return monitor.rcWork;
}

}  // namespace

DesktopDialog::DesktopDialog(const DialogContent& content, const DesktopTexts& texts,
                             std::optional<Picture> picture, int cascade, Finished finished)
    : content_(content),
      texts_(texts),
      picture_(std::move(picture)),
      finished_(std::move(finished)),
      text_(LinesForWindow(WithBrokenLines(content.text, kLineLimits))) {
  try {
    const RECT monitor = MonitorOfPointer();
    MakeWindow({monitor.left, monitor.top, monitor.left + kFirstSide, monitor.top + kFirstSide});
    PlaceInTheMiddle(cascade);
    MakeAnew();
  } catch (...) {
    if (frame_) DestroyWindow(frame_);
    throw;
  }
}

DesktopDialog::~DesktopDialog() {
  isFinished_ = true;
  if (frame_) DestroyWindow(frame_);
}

void DesktopDialog::MakeWindow(const RECT& place) {
  MakeFrame(place);
  MakeChildren();
  SetDpi(GetDpiForWindow(frame_));
}

// A window under Wine may keep the size that it was made with on the screen, its buttons out of
// reach. So the one that is shown is made with the size that was found with another.
void DesktopDialog::MakeAnew() {
  RECT place{};
  GetWindowRect(frame_, &place);
  DestroyWindow(frame_);
  buttons_.clear();
  MakeWindow(place);
}

void DesktopDialog::MakeFrame(const RECT& place) {
  static const ATOM registered = [] {
    WNDCLASSEXW description{};
    description.cbSize = sizeof description;
    description.lpfnWndProc = FrameProcedure;
    description.hInstance = Instance();
    description.hIcon = LoadIconW(nullptr, MAKEINTRESOURCEW(32516));  // information
    description.hCursor = LoadCursorW(nullptr, MAKEINTRESOURCEW(32512));
    description.lpszClassName = kClass;
    return RegisterClassExW(&description);
  }();
  if (!registered) throw std::runtime_error("the system does not accept the dialog's window");

  const DWORD closeControl = content_.closeButton ? WS_SYSMENU : 0;
  const DWORD exStyle = WS_EX_DLGMODALFRAME | WS_EX_APPWINDOW | WS_EX_CONTROLPARENT |
                        (content_.staysOnTop ? WS_EX_TOPMOST : 0) |
                        (texts_.isRightToLeft ? WS_EX_LAYOUTRTL : 0);
  CreateWindowExW(exStyle, kClass, LineForWindow(content_.title).c_str(),
                  WS_POPUP | WS_CAPTION | WS_CLIPCHILDREN | closeControl, place.left, place.top,
                  place.right - place.left, place.bottom - place.top, nullptr, nullptr, Instance(),
                  this);
  if (!frame_) throw std::runtime_error("the dialog's window cannot be made");
  SetAccessibleName(frame_, LineForWindow(content_.title), ROLE_SYSTEM_DIALOG);
}

// In the order of the Tab key.
void DesktopDialog::MakeChildren() {
  for (const DialogButton& button : content_.buttons) {
    const std::wstring label = LineForWindow(button.label);
    const HWND window = MakeChild(L"BUTTON", WithoutMnemonic(label), WS_TABSTOP | BS_PUSHBUTTON);
    buttons_.push_back({button.id, label, window});
  }
  // With the bar from the beginning on, as it cannot be added later; it is hidden where all of the
  // text can be seen.
  textControl_ = MakeChild(L"EDIT", text_,
                           WS_TABSTOP | WS_VSCROLL | ES_MULTILINE | ES_READONLY | ES_AUTOVSCROLL);
  SetAccessibleName(textControl_, LineForWindow(content_.title));
  if (content_.timeoutS > 0) {
    timeLabel_ = MakeChild(L"STATIC", L"", SS_NOPREFIX | SS_CENTERIMAGE | SS_ENDELLIPSIS);
  }
  focus_ = FirstFocus();
  // The mark of the focus is there from the beginning on.
  SendMessageW(frame_, WM_CHANGEUISTATE, MAKEWPARAM(UIS_CLEAR, UISF_HIDEFOCUS), 0);
}

HWND DesktopDialog::MakeChild(const wchar_t* windowClass, const std::wstring& text, DWORD style) {
  const HWND child = CreateWindowExW(0, windowClass, text.c_str(), WS_CHILD | WS_VISIBLE | style, 0,
                                     0, 0, 0, frame_, nullptr, Instance(), nullptr);
  if (!child ||
      !SetWindowSubclass(child, ChildProcedure, kSubclass, reinterpret_cast<DWORD_PTR>(this))) {
    throw std::runtime_error("the dialog's controls cannot be made");
  }
  return child;
}

// Never the first of two: whoever presses a key without looking grants nothing.
HWND DesktopDialog::FirstFocus() const {
  return buttons_.empty() ? textControl_ : buttons_.back().window;
}

void DesktopDialog::Show(HWND above) {
  const ULONGLONG now = GetTickCount64();
  deafToPointerUntil_ = deafToKeysUntil_ = now + kDeafMs;
  isShown_ = true;
  if (content_.timeoutS > 0) {
    deadline_ = now + content_.timeoutS * 1000ULL;
    OnTick();
  }
  // Not ShowWindow: its first call would do what whoever started this program had in mind for it.
  constexpr UINT kFlags = SWP_NOMOVE | SWP_NOSIZE | SWP_SHOWWINDOW;
  if (above) {
    // Right below it the dialog would stay above all others from then on.
    SetWindowPos(frame_, content_.staysOnTop ? above : HWND_TOP, 0, 0, 0, 0,
                 kFlags | SWP_NOACTIVATE);
    return;
  }
  SetWindowPos(frame_, Height(), 0, 0, 0, 0, kFlags);
  SetForegroundWindow(frame_);
  UpdateWindow(frame_);
}

void DesktopDialog::ComeToTheFront() {
  SetWindowPos(frame_, Height(), 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
  SetForegroundWindow(frame_);
}

HWND DesktopDialog::Height() const {
  return content_.staysOnTop ? HWND_TOPMOST : HWND_TOP;
}

void DesktopDialog::SetCovered(bool isCovered) {
  isCovered_ = isCovered;
  deafToPointerUntil_ = deafToKeysUntil_ = GetTickCount64() + kDeafMs;
}

bool DesktopDialog::Takes(MSG& message) {
  if (message.hwnd != frame_ && !IsChild(frame_, message.hwnd)) return false;
  // The queue may hold what was typed before: a message's own time counts too.
  const auto ageMs = static_cast<LONG>(GetTickCount() - message.time);
  const ULONGLONG madeAt = GetTickCount64() - std::max(ageMs, LONG{0});
  if (IsPointerInput(message.message) && madeAt < deafToPointerUntil_) return true;
  if (IsKeyInput(message.message) && madeAt < deafToKeysUntil_) return true;

  if (message.message != WM_KEYDOWN) return false;
  const bool isArrow = message.wParam >= VK_LEFT && message.wParam <= VK_DOWN;
  const bool movesFocus = message.wParam == VK_TAB || (isArrow && ButtonOf(message.hwnd));
  return movesFocus && IsDialogMessageW(frame_, &message);
}

LRESULT CALLBACK DesktopDialog::FrameProcedure(HWND window, UINT message, WPARAM wParam,
                                               LPARAM lParam) {
  if (message == WM_NCCREATE) {
    const auto* const creation = reinterpret_cast<CREATESTRUCTW*>(lParam);
    auto* const created = static_cast<DesktopDialog*>(creation->lpCreateParams);
    created->frame_ = window;
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(created));
  }
  auto* const self = reinterpret_cast<DesktopDialog*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  if (self && message == WM_NCDESTROY) {
    self->frame_ = nullptr;
    SetWindowLongPtrW(window, GWLP_USERDATA, 0);
    self->Finish(0);  // by someone else
  } else if (self) {
    try {
      if (const auto result = self->OnFrameMessage(message, wParam, lParam)) return *result;
    } catch (const std::exception&) {
      // No exception may pass the system's code. The window stays as it is.
    }
  }
  return DefWindowProcW(window, message, wParam, lParam);
}

std::optional<LRESULT> DesktopDialog::OnFrameMessage(UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_CLOSE:
      if (content_.closeButton && !IsDeafToPointer()) Finish(content_.closeButton);
      return 0;
    case WM_ACTIVATE:
      OnActivate(wParam);
      return 0;
    case WM_SETFOCUS:
      SetFocus(focus_);
      return 0;
    case WM_COMMAND:
      OnCommand(reinterpret_cast<HWND>(lParam), HIWORD(wParam));
      return 0;
    case WM_TIMER:
      if (wParam == kTickTimer && content_.timeoutS > 0) OnTick();
      return 0;
    case WM_DPICHANGED: {
      const auto* const place = reinterpret_cast<const RECT*>(lParam);
      SetDpi(LOWORD(wParam));
      PlaceInside(place->left, place->top);
      return 0;
    }
    case WM_SETTINGCHANGE:
    case WM_DISPLAYCHANGE: {
      SetDpi(dpi_);
      RECT place{};
      GetWindowRect(frame_, &place);
      PlaceInside(place.left, place.top);
      return 0;
    }
    case WM_CTLCOLORSTATIC: {
      const bool isText = reinterpret_cast<HWND>(lParam) == textControl_;
      const int background = isText ? COLOR_WINDOW : COLOR_BTNFACE;
      const auto context = reinterpret_cast<HDC>(wParam);
      SetTextColor(context, GetSysColor(isText ? COLOR_WINDOWTEXT : COLOR_BTNTEXT));
      SetBkColor(context, GetSysColor(background));
      return reinterpret_cast<LRESULT>(GetSysColorBrush(background));
    }
    case WM_CTLCOLORBTN:
      return reinterpret_cast<LRESULT>(GetSysColorBrush(COLOR_BTNFACE));
    case WM_ERASEBKGND:
      return 1;
    case WM_PAINT:
      Paint();
      return 0;
    default:
      return std::nullopt;
  }
}

LRESULT CALLBACK DesktopDialog::ChildProcedure(HWND child, UINT message, WPARAM wParam,
                                               LPARAM lParam, UINT_PTR, DWORD_PTR owner) {
  auto* const self = reinterpret_cast<DesktopDialog*>(owner);
  if (message == WM_NCDESTROY) {
    RemoveWindowSubclass(child, ChildProcedure, kSubclass);
    return DefSubclassProc(child, message, wParam, lParam);
  }
  try {
    if (const auto result = self->OnChildMessage(child, message, wParam, lParam)) return *result;
  } catch (const std::exception&) {
    return 0;  // as in the frame's procedure: what could not be done answers nothing
  }
  const LRESULT result = DefSubclassProc(child, message, wParam, lParam);
  // The text is there to be read: no caret blinks in it.
  if (message == WM_SETFOCUS && child == self->textControl_) HideCaret(child);
  return result;
}

std::optional<LRESULT> DesktopDialog::OnChildMessage(HWND child, UINT message, WPARAM wParam,
                                                     LPARAM lParam) {
  if (IsDeafToPointer() && (IsPointerInput(message) || message == BM_CLICK)) return 0;
  if (IsDeafToKeys() && IsKeyInput(message)) return 0;

  const bool isButton = ButtonOf(child) != nullptr;
  const bool isKeyDown = message == WM_KEYDOWN;
  // A key that is held down since before the focus came here is meant for something else.
  const bool isHeld = isKeyDown && (lParam & kIsRepeated) != 0;
  if (isKeyDown && wParam == VK_ESCAPE) {
    if (content_.closeButton && !isHeld) Finish(content_.closeButton);
    return 0;
  }
  if (isKeyDown && isButton && wParam == VK_RETURN) {
    if (!isHeld) Press(child);
    return 0;
  }
  if (isHeld && isButton && wParam == VK_SPACE) return 0;
  if (child == textControl_) return OnTextMessage(message, wParam);
  return std::nullopt;
}

std::optional<LRESULT> DesktopDialog::OnTextMessage(UINT message, WPARAM wParam) {
  // Tab leaves the text, and no key selects all of it.
  if (message == WM_GETDLGCODE) return DLGC_WANTARROWS;
  // The control would ring the bell for what cannot be written into it.
  const bool isCopying = message == WM_CHAR && wParam < 0x20 && wParam != VK_RETURN;
  if (message == WM_CHAR && !isCopying) return 0;
  return std::nullopt;
}

void DesktopDialog::OnActivate(WPARAM how) {
  if (LOWORD(how) == WA_INACTIVE) {
    const HWND focused = GetFocus();
    if (focused && IsChild(frame_, focused)) focus_ = focused;
    return;
  }
  SetFocus(focus_);
  // It may have come to the front by itself, when another window went away under somebody's hands.
  if (LOWORD(how) == WA_ACTIVE) deafToKeysUntil_ = GetTickCount64() + kDeafMs;
}

void DesktopDialog::OnCommand(HWND child, WORD notification) {
  if (child && notification == BN_CLICKED) Press(child);
}

const DesktopDialog::Button* DesktopDialog::ButtonOf(HWND window) const {
  const auto found = std::find_if(buttons_.begin(), buttons_.end(),
                                  [&](const Button& button) { return button.window == window; });
  return found == buttons_.end() ? nullptr : &*found;
}

void DesktopDialog::Press(HWND window) {
  const Button* const button = ButtonOf(window);
  if (button && !IsDeafToPointer()) Finish(button->id);
}

void DesktopDialog::Finish(ButtonId button) {
  if (isFinished_ || !isShown_) return;
  isFinished_ = true;
  finished_(button);
}

bool DesktopDialog::IsDeafToPointer() const {
  return !isShown_ || isCovered_ || GetTickCount64() < deafToPointerUntil_;
}

bool DesktopDialog::IsDeafToKeys() const {
  return !isShown_ || isCovered_ || GetTickCount64() < deafToKeysUntil_;
}

void DesktopDialog::OnTick() {
  const ULONGLONG now = GetTickCount64();
  if (now >= deadline_) {
    KillTimer(frame_, kTickTimer);
    Finish(0);
    return;
  }
  const ULONGLONG leftMs = deadline_ - now;
  const auto leftS = static_cast<uint32_t>((leftMs + 999) / 1000);
  SetWindowTextW(timeLabel_, TimeLeft(LineForWindow(texts_.timeLeft), leftS).c_str());
  // Next when the number changes.
  const auto nextMs = static_cast<UINT>(leftMs % kTickMs);
  SetTimer(frame_, kTickTimer, nextMs > 0 ? nextMs : kTickMs, nullptr);
}
