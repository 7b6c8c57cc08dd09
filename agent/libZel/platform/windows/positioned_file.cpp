#include "agent/libZel/positioned_file.h"

#include <windows.h>

#include <algorithm>

#include "agent/libZel/file_system.h"
#include "agent/libZel/platform/windows/file_access.h"
#include "agent/libZel/platform/windows/unique_handle.h"

namespace file_system {
struct PositionedFile::Implementation {
  UniqueHandle file;
  uint64_t sizeBytes = 0;
};

PositionedFile::PositionedFile() : implementation_(std::make_unique<Implementation>()) {}
PositionedFile::~PositionedFile() = default;

int PositionedFile::Open(const std::filesystem::path& path) {
  UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return static_cast<int>(GetLastError());
  if (GetFileType(file.Get()) != FILE_TYPE_DISK) return kErrorNotRegular;
  LARGE_INTEGER size;
  if (!GetFileSizeEx(file.Get(), &size)) return static_cast<int>(GetLastError());
  implementation_->sizeBytes = static_cast<uint64_t>(size.QuadPart);
  implementation_->file = std::move(file);
  return 0;
}

uint64_t PositionedFile::SizeBytes() const {
  return implementation_->sizeBytes;
}

int PositionedFile::ReadAt(uint64_t offset, void* buffer, size_t count, size_t* done) const {
  *done = 0;
  while (*done < count) {
    OVERLAPPED place{};
    const uint64_t position = offset + *done;
    place.Offset = static_cast<DWORD>(position);
    place.OffsetHigh = static_cast<DWORD>(position >> 32);
    const auto step = static_cast<DWORD>(std::min(count - *done, kMaxTransferBytes));
    DWORD got = 0;
    if (!ReadFile(implementation_->file.Get(), static_cast<char*>(buffer) + *done, step, &got,
                  &place)) {
      const DWORD error = GetLastError();
      return error == ERROR_HANDLE_EOF ? 0 : static_cast<int>(error);
    }
    if (got == 0) break;
    *done += got;
  }
  return 0;
}

}  // namespace file_system
