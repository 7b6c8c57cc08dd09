#include "agent/proxy/process.h"

#include <windows.h>

#include <lmcons.h>
#include <shellapi.h>

#include <atomic>
#include <system_error>

#include "agent/libZel/platform/windows/local_memory.h"
#include "libZel/string.h"

namespace {

// The system ends the program when the handler of a closing console returns, at the latest after
// this time of its own choice.
constexpr DWORD kCloseMs = 5000;

std::atomic<HANDLE> stopEvent{nullptr};
std::atomic<HANDLE> stoppedEvent{nullptr};

BOOL WINAPI OnConsoleEvent(DWORD event) {
  SetEvent(stopEvent);
  const bool isEnding =
      event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT;
  if (isEnding) WaitForSingleObject(stoppedEvent, kCloseMs);
  return TRUE;
}

// A console that the system opened for this program alone, because it was started from the
// session's own shell, is of no use to anybody.
void LeaveOwnConsole() {
  DWORD others[2] = {};
  if (GetConsoleProcessList(others, 2) == 1 && IsWindowVisible(GetConsoleWindow())) FreeConsole();
}

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

}  // namespace

const char* const kPlatformName = "windows";

void PrepareProcess() {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  // Libraries come from this program's own directory or the system's.
  SetDllDirectoryW(L"");
  LeaveOwnConsole();
}

std::vector<std::string> Arguments(int, char**) {
  int count = 0;
  const LocalMemory<wchar_t*[]> values(CommandLineToArgvW(GetCommandLineW(), &count));
  if (!values) Fail("the command line cannot be read");
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) arguments.emplace_back(ZelString(values[i]).Utf8());
  return arguments;
}

std::string UserName() {
  wchar_t name[UNLEN + 1] = {};
  DWORD length = UNLEN + 1;
  if (!GetUserNameW(name, &length)) return {};
  return std::string(ZelString(name).Utf8());
}

std::string SessionId() {
  DWORD session = 0;
  if (!ProcessIdToSessionId(GetCurrentProcessId(), &session)) return {};
  return std::to_string(session);
}

uint32_t ProcessId() {
  return GetCurrentProcessId();
}

// The language of the system's windows; where that is not told, the one that numbers and dates are
// written in.
std::string UserLanguage() {
  wchar_t tags[256] = {};
  ULONG count = 0;
  ULONG length = 256;
  const bool isKnown =
      GetUserPreferredUILanguages(MUI_LANGUAGE_NAME, &count, tags, &length) && count > 0;
  if (!isKnown && !GetUserDefaultLocaleName(tags, 256)) return "en";
  // The first of several, each of which ends with a NUL.
  return std::string(ZelString(tags).Utf8());
}

StopRequest::StopRequest() {
  stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  stoppedEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!stopEvent || !stoppedEvent) Fail("cannot make an event");
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
  SetEvent(stopEvent);
}
