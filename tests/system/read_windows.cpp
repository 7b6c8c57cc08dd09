// Prints what the windows on the desktop say, one text a line, in UTF-8: what a screen reader of
// Windows would find.

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>

namespace {

constexpr UINT kPatienceMs = 2000;

// Asks the window itself, as only that brings texts of another program's controls.
std::wstring TextOf(HWND window) {
  wchar_t text[4096] = L"";
  SendMessageTimeoutW(window, WM_GETTEXT, std::size(text), reinterpret_cast<LPARAM>(text),
                      SMTO_ABORTIFHUNG, kPatienceMs, nullptr);
  return text;
}

void Print(std::wstring text) {
  std::ranges::replace(text, L'\r', L' ');
  std::ranges::replace(text, L'\n', L' ');
  char line[4 * 4096] = "";
  WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, line, sizeof line, nullptr, nullptr);
  std::puts(line);
}

BOOL CALLBACK PrintControl(HWND control, LPARAM) {
  Print(TextOf(control));
  return TRUE;
}

BOOL CALLBACK PrintTexts(HWND window, LPARAM) {
  if (!IsWindowVisible(window)) return TRUE;
  Print(TextOf(window));
  EnumChildWindows(window, PrintControl, 0);
  return TRUE;
}

}  // namespace

int main() {
  return EnumWindows(PrintTexts, 0) ? 0 : 1;
}
