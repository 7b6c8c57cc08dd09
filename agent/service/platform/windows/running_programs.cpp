#include "agent/service/platform/windows/running_programs.h"

#include <windows.h>

#include <tlhelp32.h>

#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "agent/libZel/native_path.h"
#include "agent/libZel/platform/windows/unique_handle.h"

namespace {

namespace fs = std::filesystem;

constexpr DWORD kEndMs = 10000;
constexpr DWORD kLongestPath = 32768;

std::vector<DWORD> ProcessIds() {
  const UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  std::vector<DWORD> ids;
  if (!snapshot)
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "cannot list the processes");
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL isOne = Process32FirstW(snapshot.Get(), &entry); isOne;
       isOne = Process32NextW(snapshot.Get(), &entry)) {
    ids.push_back(entry.th32ProcessID);
  }
  return ids;
}

// Empty when the system does not tell.
std::wstring ProgramOf(HANDLE process) {
  std::vector<wchar_t> name(kLongestPath);
  DWORD length = kLongestPath;
  if (!QueryFullProcessImageNameW(process, 0, name.data(), &length)) return {};
  return std::wstring(name.data(), length);
}

bool IsBelow(const std::wstring& directory, const std::wstring& file) {
  if (file.size() <= directory.size()) return false;
  const int length = static_cast<int>(directory.size());
  return CompareStringOrdinal(file.data(), length, directory.data(), length, TRUE) == CSTR_EQUAL;
}

void End(HANDLE process, const std::wstring& program) {
  const bool isEnding = TerminateProcess(process, 1);
  if (WaitForSingleObject(process, isEnding ? kEndMs : 0) == WAIT_OBJECT_0) return;
  throw std::runtime_error("the program " + std::string(FromNativePath(fs::path(program)).Utf8()) +
                           " does not end");
}

}  // namespace

void EndProgramsOf(const fs::path& directory) {
  std::wstring below = fs::absolute(directory).native();
  if (!below.ends_with(L'\\')) below += L'\\';
  for (const DWORD id : ProcessIds()) {
    if (id == GetCurrentProcessId()) continue;
    constexpr DWORD kAccess = PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE | SYNCHRONIZE;
    const UniqueHandle process(OpenProcess(kAccess, FALSE, id));
    if (!process) continue;  // one of the system's own, which is none of ours
    const std::wstring program = ProgramOf(process.Get());
    if (IsBelow(below, program)) End(process.Get(), program);
  }
}
