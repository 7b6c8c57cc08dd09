// Prints the class and the text of each of the proxy's windows and of their controls, as other
// programs find them: lines CLASS, tab, TEXT, in UTF-8, line ends within a text as \n. Of a text
// that scrolls it is what stands there from the first line on that can be seen.

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace {

constexpr UINT kTimeoutMs = 5000;
constexpr wchar_t kOwnClasses[] = L"ZelProxy";

std::wstring ClassOf(HWND window) {
  wchar_t name[128] = {};
  return std::wstring(name, static_cast<size_t>(GetClassNameW(window, name, 128)));
}

// Of windows of other programs the system's own call tells titles only.
std::wstring TextOf(HWND window) {
  DWORD_PTR length = 0;
  SendMessageTimeoutW(window, WM_GETTEXTLENGTH, 0, 0, SMTO_NORMAL, kTimeoutMs, &length);
  std::wstring text(length + 1, L'\0');
  DWORD_PTR got = 0;
  SendMessageTimeoutW(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()),
                      SMTO_NORMAL, kTimeoutMs, &got);
  text.resize(got);
  if (ClassOf(window) != L"Edit") return text;
  const LRESULT line = SendMessageW(window, EM_GETFIRSTVISIBLELINE, 0, 0);
  const LRESULT first = SendMessageW(window, EM_LINEINDEX, static_cast<WPARAM>(line), 0);
  return text.substr(std::min(text.size(), static_cast<size_t>(first)));
}

std::string Utf8(const std::wstring& text) {
  const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                       nullptr, 0, nullptr, nullptr);
  std::string bytes(static_cast<size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), bytes.data(), size,
                      nullptr, nullptr);
  return bytes;
}

std::string InOneLine(const std::string& text) {
  std::string line;
  for (const char letter : text) {
    if (letter == '\n') line += "\\n";
    if (letter != '\n' && letter != '\r') line += letter;
  }
  return line;
}

BOOL CALLBACK Print(HWND window, LPARAM) {
  if (!IsWindowVisible(window)) return TRUE;
  std::printf("%s\t%s\n", Utf8(ClassOf(window)).c_str(), InOneLine(Utf8(TextOf(window))).c_str());
  return TRUE;
}

BOOL CALLBACK PrintOwn(HWND window, LPARAM) {
  const bool isOwn = ClassOf(window).rfind(kOwnClasses, 0) == 0;
  if (!isOwn || !IsWindowVisible(window)) return TRUE;
  Print(window, 0);
  EnumChildWindows(window, Print, 0);
  return TRUE;
}

}  // namespace

int main() {
  return EnumWindows(PrintOwn, 0) ? 0 : 1;
}
