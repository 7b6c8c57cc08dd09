#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "libZel/string.h"

// The directory at the end of a ZIP archive, and what it says of the entries.

/// How an entry is stored.
constexpr uint16_t kZipStored = 0;
constexpr uint16_t kZipDeflated = 8;

/// The flags of an entry that is encrypted in one way or another.
constexpr uint16_t kZipEncryptedFlags = 0x2041;

struct ZipEntry {
  ZelString name;
  uint16_t flags = 0;
  uint16_t method = kZipStored;
  uint32_t crc = 0;
  uint64_t packedBytes = 0;
  uint64_t sizeBytes = 0;
  /// Where the packed bytes begin.
  uint64_t dataOffset = 0;
  /// In nanoseconds since 1970 (UTC).
  std::optional<int64_t> modifiedNs;
  /// Type and permission bits of POSIX; 0 when the archive does not tell them.
  uint32_t mode = 0;
  /// Attribute bits of DOS.
  uint8_t dosAttributes = 0;

  bool IsEncrypted() const { return (flags & kZipEncryptedFlags) != 0; }
};

struct ZipDirectory {
  std::vector<ZipEntry> entries;
  /// Why the archive cannot be used; empty on success.
  ZelString error;
};

/// The archive's bytes: reads exactly `count` from `offset`, false when that fails.
using ZipBytes = std::function<bool(uint64_t offset, void* buffer, size_t count)>;

/// Reads and checks the directory. The archive must consist of its entries, one behind the other
/// from the first byte on and in any order, and the directory: whatever else is in the file would
/// be lost when it is deleted after it was unpacked. Throws only for want of memory, of which it
/// takes some multiple of the directory's size.
ZipDirectory ReadZipDirectory(const ZipBytes& bytes, uint64_t sizeBytes, uint32_t maxEntries);
