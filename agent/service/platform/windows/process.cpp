#include "agent/service/process.h"

#include <windows.h>

#include <shellapi.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <system_error>

#include "agent/libZel/platform/windows/local_memory.h"
#include "libZel/string.h"

namespace {

// The system ends the program when the handler of a closing console returns, at the latest after
// this time of its own choice.
constexpr DWORD kCloseMs = 10000;

std::atomic<HANDLE> stopEvent{nullptr};
std::atomic<HANDLE> stoppedEvent{nullptr};

std::string Narrow(const wchar_t* text) {
  return std::string(ZelString(text).Utf8());
}

BOOL WINAPI OnConsoleEvent(DWORD event) {
  StopRequest::Raise();
  const bool isClosing = event == CTRL_CLOSE_EVENT || event == CTRL_SHUTDOWN_EVENT;
  if (isClosing) WaitForSingleObject(stoppedEvent, kCloseMs);
  return TRUE;
}

// Switches the console's echo off for a scope.
class NoEcho {
 public:
  explicit NoEcho(HANDLE input) : input_(input) {
    GetConsoleMode(input_, &before_);
    SetConsoleMode(input_, before_ & ~DWORD{ENABLE_ECHO_INPUT});
  }
  ~NoEcho() { SetConsoleMode(input_, before_); }
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;

 private:
  const HANDLE input_;
  DWORD before_ = 0;
};

std::optional<std::string> ReadConsoleLine(HANDLE input) {
  wchar_t text[1025] = {};
  DWORD length = 0;
  if (!ReadConsoleW(input, text, 1024, &length, nullptr) || length == 0) return {};
  while (length > 0 && (text[length - 1] == L'\n' || text[length - 1] == L'\r')) --length;
  text[length] = 0;
  return Narrow(text);
}

}  // namespace

void PrepareProcess() {
  // No dialog of the system may hold up a service: failures come back as error codes.
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  // Modules and libraries come from this program's own directory or the system's.
  SetDllDirectoryW(L"");
}

std::vector<std::string> Arguments(int, char**) {
  int count = 0;
  const LocalMemory<wchar_t*[]> values(CommandLineToArgvW(GetCommandLineW(), &count));
  if (!values) throw std::system_error(GetLastError(), std::system_category(), "command line");
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) arguments.push_back(Narrow(values[i]));
  return arguments;
}

std::optional<std::string> EnvironmentValue(const char* name) {
  const wchar_t* const value = _wgetenv(ZelString(name).GetTCHAR());
  return value ? std::optional<std::string>(Narrow(value)) : std::nullopt;
}

std::filesystem::path DefaultHome() {
  const wchar_t* const data = _wgetenv(L"ProgramData");
  return std::filesystem::path(data ? data : L"C:\\ProgramData") / L"zelagent";
}

std::filesystem::path ProgramDirectory() {
  std::wstring name(512, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, name.data(), static_cast<DWORD>(name.size()));
    if (length == 0) throw std::system_error(GetLastError(), std::system_category(), "own path");
    if (length < name.size()) return std::filesystem::path(name.substr(0, length)).parent_path();
    name.resize(2 * name.size());
  }
}

std::optional<std::string> ReadPassword(const std::string& prompt) {
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  DWORD mode = 0;
  if (!GetConsoleMode(input, &mode)) {
    std::string password;
    if (!std::getline(std::cin, password)) return {};
    if (!password.empty() && password.back() == '\r') password.pop_back();
    return password;
  }
  std::fputs(prompt.c_str(), stderr);
  const NoEcho noEcho(input);
  std::optional<std::string> password = ReadConsoleLine(input);
  std::fputs("\n", stderr);
  return password;
}

StopRequest::StopRequest() {
  stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  stoppedEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!stopEvent || !stoppedEvent)
    throw std::system_error(GetLastError(), std::system_category(), "cannot make an event");
  SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
}

// The events live as long as the process: a handler of the console may be waiting for one.
StopRequest::~StopRequest() {
  SetEvent(stoppedEvent);
}

void StopRequest::Wait() {
  WaitForSingleObject(stopEvent, INFINITE);
}

void StopRequest::Raise() {
  if (const HANDLE event = stopEvent) SetEvent(event);
}
