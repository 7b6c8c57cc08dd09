#pragma once

#include <windows.h>

#include <algorithm>
#include <cstddef>

#include "agent/libZel/platform/windows/file_access.h"

namespace file_system {

/// Writes all the bytes from where the file stands. Returns an error number, or 0.
inline int WriteAll(HANDLE file, const void* bytes, size_t count) {
  const char* next = static_cast<const char*>(bytes);
  while (count > 0) {
    DWORD written = 0;
    const auto step = static_cast<DWORD>(std::min(count, kMaxTransferBytes));
    if (!WriteFile(file, next, step, &written, nullptr)) return static_cast<int>(GetLastError());
    if (written == 0) return ERROR_DISK_FULL;
    next += written;
    count -= written;
  }
  return 0;
}

}  // namespace file_system
