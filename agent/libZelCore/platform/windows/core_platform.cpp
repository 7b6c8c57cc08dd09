#include "agent/libZelCore/core_platform.h"

#include <windows.h>

#include <sddl.h>

#include <cstddef>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "agent/libZel/native_path.h"
#include "agent/libZel/platform/windows/local_memory.h"
#include "agent/libZel/platform/windows/process_account.h"
#include "agent/libZel/system_error_text.h"

namespace core_platform {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const char* step, const fs::path& file, DWORD error) {
  throw std::runtime_error(std::string("cannot ") + step + " " +
                           std::string(FromNativePath(file).Utf8()) + ": " +
                           SystemErrorText(error));
}

// Protected from inheritance; the system and the administrators have full access. So has an account
// that is no administrator; an administrator's own would lend it to programs without his rights.
LocalMemory<> PrivateDescriptor(const fs::path& directory) {
  std::wstring text = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
  if (IsAdministrator()) {
    text = L"O:BA" + text;
  } else if (const std::wstring sid = ProcessAccount().Text(); !sid.empty()) {
    text += L"(A;OICI;FA;;;" + sid + L")";
  }
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1,
                                                            &descriptor, nullptr)) {
    Fail("describe the access to", directory, GetLastError());
  }
  return LocalMemory<>(descriptor);
}

HANDLE HandleOf(std::intptr_t value) {
  return reinterpret_cast<HANDLE>(value);
}

}  // namespace

const char kSeparator = '\\';

fs::path ExecutablePath() {
  std::vector<wchar_t> path(MAX_PATH);
  while (true) {
    const auto size = static_cast<DWORD>(path.size());
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), size);
    if (length < size) return std::wstring(path.data(), length);
    path.resize(2 * path.size());
  }
}

void* ApplicationHandle() {
  return GetModuleHandleW(nullptr);
}

std::string SystemLanguage() {
  wchar_t name[LOCALE_NAME_MAX_LENGTH] = {};
  const LCID locale = MAKELCID(GetSystemDefaultUILanguage(), SORT_DEFAULT);
  if (!LCIDToLocaleName(locale, name, LOCALE_NAME_MAX_LENGTH, 0)) return {};
  return std::string(ZelString(name).Utf8());
}

std::string DefaultProxyPipe() {
  constexpr DWORD kNoSession = 0xFFFFFFFF;
  const DWORD session = WTSGetActiveConsoleSessionId();
  if (session == kNoSession) return {};
  return R"(\\.\pipe\zelproxy-)" + std::to_string(session);
}

std::string HostName() {
  wchar_t name[256] = {};
  DWORD length = 256;
  if (!GetComputerNameExW(ComputerNameDnsHostname, name, &length)) return {};
  return std::string(ZelString(name).Utf8());
}

// The system's heap does so by itself.
bool IsKnownCodePage(unsigned codePage) {
  return ::IsValidCodePage(codePage);
}

bool SetSystemCodePage(unsigned) {
  return true;
}

// The system's heap manages both by itself.
void KeepFreeMemory() {}
void ReturnFreeMemory() {}
void ReturnFreeMemoryOfThread() {}

bool IsAdministrator() {
  std::byte sid[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof sid;
  BOOL isMember = FALSE;
  return CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, sid, &size) &&
         CheckTokenMembership(nullptr, sid, &isMember) && isMember;
}

bool OthersMayRead(const fs::path&) {
  return false;
}

bool MakePrivateDirectory(const fs::path& directory) {
  const LocalMemory<> descriptor = PrivateDescriptor(directory);
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor.get(), FALSE};
  if (CreateDirectoryW(directory.c_str(), &attributes)) return true;
  DWORD error = GetLastError();
  if (error == ERROR_PATH_NOT_FOUND && directory.has_relative_path()) {
    MakePrivateDirectory(directory.parent_path());
    if (CreateDirectoryW(directory.c_str(), &attributes)) return true;
    error = GetLastError();
  }
  std::error_code ignored;
  if (error == ERROR_ALREADY_EXISTS && fs::is_directory(directory, ignored)) return false;
  Fail("make the directory", directory, error);
}

AppendFile::AppendFile(const fs::path& path) {
  const HANDLE handle = CreateFileW(path.c_str(), FILE_APPEND_DATA | FILE_WRITE_DATA,
                                    FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) Fail("open", path, GetLastError());
  handle_ = reinterpret_cast<std::intptr_t>(handle);
}

AppendFile::~AppendFile() {
  CloseHandle(HandleOf(handle_));
}

int AppendFile::Append(std::string_view bytes, bool* isWhole) {
  *isWhole = true;
  LARGE_INTEGER end{};
  if (!SetFilePointerEx(HandleOf(handle_), {}, &end, FILE_END))
    return static_cast<int>(GetLastError());

  DWORD written = 0;
  const bool isDone = WriteFile(HandleOf(handle_), bytes.data(), static_cast<DWORD>(bytes.size()),
                                &written, nullptr);
  const DWORD error = isDone ? DWORD{ERROR_DISK_FULL} : GetLastError();
  if (isDone && written == bytes.size()) return 0;
  if (written > 0) {
    *isWhole = SetFilePointerEx(HandleOf(handle_), end, nullptr, FILE_BEGIN) &&
               SetEndOfFile(HandleOf(handle_));
  }
  return static_cast<int>(error);
}

InstanceLock::InstanceLock(const fs::path& file) {
  const HANDLE handle = CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    const DWORD error = GetLastError();
    if (error != ERROR_SHARING_VIOLATION) Fail("lock", file, error);
    throw std::runtime_error("another agent is running in this home directory (it holds " +
                             std::string(FromNativePath(file).Utf8()) + ")");
  }
  handle_ = reinterpret_cast<std::intptr_t>(handle);
}

InstanceLock::~InstanceLock() {
  CloseHandle(HandleOf(handle_));
}

}  // namespace core_platform
