#pragma once

#include <windows.h>

#include <cstddef>

/// How files are opened that others may use, rename and delete meanwhile.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

/// The most that is read or written at once: the system counts in 32 bits.
constexpr size_t kMaxTransferBytes = size_t{1} << 30;

/// The error number of a call of the system that answers whether it has succeeded; 0 when it has.
inline int ErrorOf(BOOL succeeded) {
  return succeeded ? 0 : static_cast<int>(GetLastError());
}
