#include "agent/zelctl/terminal.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <shellapi.h>

#include <cstdio>
#include <stdexcept>

#include "agent/libZel/platform/windows/local_memory.h"
#include "libZel/string.h"

std::vector<std::string> ProgramArguments(int, char**) {
  // The narrow arguments have lost what the system's code page cannot hold.
  int count = 0;
  const LocalMemory<wchar_t*[]> wide(CommandLineToArgvW(GetCommandLineW(), &count));
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) {
    arguments.emplace_back(ZelString(wide[i]).Utf8());
  }
  return arguments;
}

std::filesystem::path LocalPath(const std::string& argument) {
  return ZelString(std::string_view(argument)).GetTCHAR();
}

void PrepareStreams() {
  SetConsoleOutputCP(CP_UTF8);
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
}

bool IsInputTerminal() {
  // _isatty takes every device for a terminal, NUL included.
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) != 0;
}

bool IsOutputTerminal() {
  return _isatty(_fileno(stdout)) != 0;
}

bool IsErrorTerminal() {
  return _isatty(_fileno(stderr)) != 0;
}

std::string PromptPassword(const std::string& question) {
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  DWORD before = 0;
  if (!GetConsoleMode(input, &before)) throw std::runtime_error("standard input is no console");
  std::fputs(question.c_str(), stderr);
  std::fflush(stderr);

  constexpr DWORD kLongestPassword = 512;
  wchar_t text[kLongestPassword + 1] = {};
  DWORD length = 0;
  SetConsoleMode(input, ENABLE_LINE_INPUT);
  const BOOL isRead = ReadConsoleW(input, text, kLongestPassword, &length, nullptr);
  SetConsoleMode(input, before);
  std::fputs("\n", stderr);
  if (!isRead || length == 0) throw std::runtime_error("no password was given");

  while (length > 0 && (text[length - 1] == L'\n' || text[length - 1] == L'\r')) --length;
  return std::string(ZelString(std::basic_string_view<TCHAR>(text, length)).Utf8());
}
