#include <windows.h>

#include <string>

#include "agent/libZel/program_launch.h"

// The system takes the line apart itself; the program does so with its arguments.
Outcome LaunchProgram(const ZelString& commandLine, const std::vector<std::string>& /*arguments*/) {
  std::wstring line = commandLine.GetTCHAR();  // the system writes into it
  STARTUPINFOW start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION process{};
  // The program is to see the system's default error mode, not the one of a service.
  constexpr DWORD kFlags = CREATE_NO_WINDOW | CREATE_NEW_PROCESS_GROUP |
                           CREATE_UNICODE_ENVIRONMENT | CREATE_DEFAULT_ERROR_MODE;
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, kFlags, nullptr, nullptr,
                      &start, &process)) {
    return OutcomeOf(static_cast<int>(GetLastError()));
  }
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return {};
}
