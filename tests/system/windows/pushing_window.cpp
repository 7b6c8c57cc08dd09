// A window that wants to be above all others and to have the keys, again and again, until the
// program is ended. It prints "ready", and then a line for each key and click that reach it, and
// for each of those that it hears of by hooks, wherever the focus is.

#include <windows.h>

#include <cstdio>

namespace {

constexpr wchar_t kClass[] = L"PushingWindow";
constexpr UINT kPushMs = 20;
constexpr int kSide = 200;

void Print(const char* line, WPARAM number) {
  std::printf("%s %u\n", line, static_cast<unsigned>(number));
  std::fflush(stdout);
}

void Push(HWND window) {
  SetWindowPos(window, HWND_TOPMOST, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_SHOWWINDOW);
  SetForegroundWindow(window);
}

LRESULT CALLBACK OnKeyboard(int code, WPARAM message, LPARAM lParam) {
  const auto* const key = reinterpret_cast<const KBDLLHOOKSTRUCT*>(lParam);
  if (code == HC_ACTION && message == WM_KEYDOWN) Print("heard key", key->vkCode);
  return CallNextHookEx(nullptr, code, message, lParam);
}

LRESULT CALLBACK OnPointer(int code, WPARAM message, LPARAM lParam) {
  if (code == HC_ACTION && message == WM_LBUTTONDOWN) Print("heard click", message);
  return CallNextHookEx(nullptr, code, message, lParam);
}

LRESULT CALLBACK OnMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_TIMER:
      Push(window);
      return 0;
    case WM_KEYDOWN:
    case WM_SYSKEYDOWN:
      Print("key", wParam);
      return 0;
    case WM_LBUTTONDOWN:
    case WM_RBUTTONDOWN:
      Print("click", message);
      return 0;
    default:
      return DefWindowProcW(window, message, wParam, lParam);
  }
}

}  // namespace

int main() {
  WNDCLASSEXW description{};
  description.cbSize = sizeof description;
  description.lpfnWndProc = OnMessage;
  description.hInstance = GetModuleHandleW(nullptr);
  description.hbrBackground = static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH));
  description.lpszClassName = kClass;
  RegisterClassExW(&description);
  const HWND window =
      CreateWindowExW(WS_EX_TOPMOST, kClass, L"pushing", WS_POPUP | WS_CAPTION | WS_VISIBLE, 0, 0,
                      kSide, kSide, nullptr, nullptr, description.hInstance, nullptr);
  if (!window || !SetTimer(window, 1, kPushMs, nullptr) ||
      !SetWindowsHookExW(WH_KEYBOARD_LL, OnKeyboard, description.hInstance, 0) ||
      !SetWindowsHookExW(WH_MOUSE_LL, OnPointer, description.hInstance, 0)) {
    return 1;
  }
  Push(window);
  std::puts("ready");
  std::fflush(stdout);
  MSG message{};
  while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
}
