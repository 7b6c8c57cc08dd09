#include "agent/libZelCore/private_file.h"

// clang-format off: the system's headers want this order.
#include <aclapi.h>
#include <sddl.h>
#include <windows.h>
// clang-format on

#include <stdexcept>
#include <system_error>

namespace {

[[noreturn]] void Fail(const std::filesystem::path& file, const char* step, DWORD reason) {
  throw std::runtime_error(std::string("cannot ") + step + " " + file.string() + ": " +
                           std::system_category().message(static_cast<int>(reason)));
}

DWORD WriteAll(HANDLE handle, std::string_view content) {
  while (!content.empty()) {
    DWORD written = 0;
    const auto piece = static_cast<DWORD>(content.size() < 0x100000 ? content.size() : 0x100000);
    if (!WriteFile(handle, content.data(), piece, &written, nullptr)) return GetLastError();
    content.remove_prefix(written);
  }
  return FlushFileBuffers(handle) ? ERROR_SUCCESS : GetLastError();
}

}  // namespace

void WritePrivateFile(const std::filesystem::path& file, std::string_view content) {
  // Protected from inheritance; the system, administrators and the owner have full access.
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(
          L"D:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;FA;;;OW)", SDDL_REVISION_1, &descriptor, nullptr)) {
    Fail(file, "describe the access to", GetLastError());
  }
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
  std::filesystem::path temporary = file;
  temporary += L"." + std::to_wstring(GetCurrentProcessId()) + L".new";
  const HANDLE handle = CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, &attributes, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  const DWORD createError = GetLastError();
  LocalFree(descriptor);
  if (handle == INVALID_HANDLE_VALUE) Fail(file, "create a file beside", createError);

  DWORD reason = WriteAll(handle, content);
  CloseHandle(handle);
  if (reason == ERROR_SUCCESS && !MoveFileExW(temporary.c_str(), file.c_str(),
                                              MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    reason = GetLastError();
  }
  if (reason == ERROR_SUCCESS) return;
  DeleteFileW(temporary.c_str());
  Fail(file, "write", reason);
}

PrivateFileLock::PrivateFileLock(const std::filesystem::path& file) {
  std::filesystem::path name = file;
  name += L".lock";
  const HANDLE handle =
      CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                  nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) Fail(name, "open", GetLastError());
  OVERLAPPED start{};
  if (!LockFileEx(handle, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &start)) {
    const DWORD reason = GetLastError();
    CloseHandle(handle);
    Fail(name, "lock", reason);
  }
  handle_ = reinterpret_cast<std::intptr_t>(handle);
}

PrivateFileLock::~PrivateFileLock() {
  CloseHandle(reinterpret_cast<HANDLE>(handle_));
}

std::string FileStamp(const std::filesystem::path& file) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data)) return {};
  const auto join = [](DWORD high, DWORD low) {
    return std::to_string((static_cast<uint64_t>(high) << 32) | low);
  };
  return join(data.nFileSizeHigh, data.nFileSizeLow) + ":" +
         join(data.ftLastWriteTime.dwHighDateTime, data.ftLastWriteTime.dwLowDateTime) + ":" +
         join(data.ftCreationTime.dwHighDateTime, data.ftCreationTime.dwLowDateTime);
}
