#include "agent/libZelCore/private_file.h"

// clang-format off: the system's headers want this order.
#include <aclapi.h>
#include <sddl.h>
#include <windows.h>
// clang-format on

#include <stdexcept>

#include "agent/libZel/platform/windows/local_memory.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/platform/windows/write_all.h"
#include "agent/libZel/system_error_text.h"

namespace {

[[noreturn]] void FailAt(const std::filesystem::path& file, const char* step, DWORD reason) {
  throw std::runtime_error(std::string("cannot ") + step + " " + file.string() + ": " +
                           SystemErrorText(reason));
}

DWORD WriteToDisk(HANDLE file, std::string_view content) {
  const int error = file_system::WriteAll(file, content.data(), content.size());
  if (error != 0) return static_cast<DWORD>(error);
  return FlushFileBuffers(file) ? ERROR_SUCCESS : GetLastError();
}

}  // namespace

void WritePrivateFile(const std::filesystem::path& file, std::string_view content) {
  // Protected from inheritance; the system, administrators and the owner have full access.
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(
          L"D:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;FA;;;OW)", SDDL_REVISION_1, &descriptor, nullptr)) {
    FailAt(file, "describe the access to", GetLastError());
  }
  const LocalMemory<> owner(descriptor);
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
  std::filesystem::path temporary = file;
  temporary += L"." + std::to_wstring(GetCurrentProcessId()) + L".new";
  UniqueHandle handle(CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, &attributes, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!handle) FailAt(file, "create a file beside", GetLastError());

  DWORD reason = WriteToDisk(handle.Get(), content);
  handle.Close();
  if (reason == ERROR_SUCCESS && !MoveFileExW(temporary.c_str(), file.c_str(),
                                              MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    reason = GetLastError();
  }
  if (reason == ERROR_SUCCESS) return;
  DeleteFileW(temporary.c_str());
  FailAt(file, "write", reason);
}

PrivateFileLock::PrivateFileLock(const std::filesystem::path& file) {
  std::filesystem::path name = file;
  name += L".lock";
  const HANDLE handle =
      CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                  nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) FailAt(name, "open", GetLastError());
  OVERLAPPED start{};
  if (!LockFileEx(handle, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &start)) {
    const DWORD reason = GetLastError();
    CloseHandle(handle);
    FailAt(name, "lock", reason);
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
