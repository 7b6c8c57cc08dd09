#include <windows.h>

#include <string>

#include "agent/libZel/program_launch.h"

namespace {

/// A path without an extension, to which the system would add ".exe": what runs must be the file
/// that was named, for others have been asked about that one. Empty for all other programs.
std::wstring ExactFile(const std::string& program) {
  const size_t directoryEnd = program.find_last_of("/\\:");
  if (directoryEnd == std::string::npos) return {};
  if (program.find('.', directoryEnd) != std::string::npos) return {};
  return ZelString(program).GetTCHAR();
}

}  // namespace

// The system takes the line apart itself; the program does so with its arguments.
Outcome LaunchProgram(const ZelString& commandLine, const std::vector<std::string>& arguments) {
  const std::wstring exactFile = ExactFile(arguments[0]);
  std::wstring line = commandLine.GetTCHAR();  // the system writes into it
  STARTUPINFOW start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION process{};
  // The program is to see the system's default error mode, not the one of a service.
  constexpr DWORD kFlags = CREATE_NO_WINDOW | CREATE_NEW_PROCESS_GROUP |
                           CREATE_UNICODE_ENVIRONMENT | CREATE_DEFAULT_ERROR_MODE;
  if (!CreateProcessW(exactFile.empty() ? nullptr : exactFile.c_str(), line.data(), nullptr,
                      nullptr, FALSE, kFlags, nullptr, nullptr, &start, &process)) {
    return OutcomeOf(static_cast<int>(GetLastError()));
  }
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return {};
}
