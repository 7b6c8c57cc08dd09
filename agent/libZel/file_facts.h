#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>

// What the questions about one file are answered from.

// Windows file-attribute bits.
constexpr uint32_t kReadOnlyAttribute = 1;
constexpr uint32_t kHiddenAttribute = 2;
constexpr uint32_t kSystemAttribute = 4;
constexpr uint32_t kDirectoryAttribute = 16;
constexpr uint32_t kNormalAttribute = 128;
constexpr uint32_t kLinkAttribute = 1024;

constexpr uint32_t kNoAttributes = 0xFFFFFFFF;
constexpr int64_t kUnknownSize = -1;
constexpr uint32_t kUnknownTime = 0xFFFFFFFF;
constexpr uint32_t kUnknownMode = 0;

/// Facts of one entry, links followed. Made without any: there is no such entry.
struct FileFacts {
  /// See `FileGetAttributes`.
  uint32_t attributes = kNoAttributes;
  /// Of a regular file; else unknown.
  int64_t sizeBytes = kUnknownSize;
  /// See `FileGetWriteTime`.
  uint32_t writeTime = kUnknownTime;
  /// See `FileGetMode`.
  uint32_t mode = kUnknownMode;
  /// A regular file whose content is on this machine: nothing has to be fetched to read it.
  bool isReadable = false;
};

/// The attribute for "none of these" where there are none.
constexpr uint32_t CompleteAttributes(uint32_t attributes) {
  return attributes == 0 ? kNormalAttribute : attributes;
}

constexpr bool IsDirectory(const FileFacts& facts) {
  return facts.attributes != kNoAttributes && (facts.attributes & kDirectoryAttribute) != 0;
}

/// A time in seconds since 1970, as `FileGetWriteTime` tells it.
constexpr uint32_t ClampTime(int64_t unixSeconds) {
  constexpr int64_t kLatest = 0xFFFFFFFE;
  if (unixSeconds < 0) return 0;
  return static_cast<uint32_t>(unixSeconds < kLatest ? unixSeconds : kLatest);
}

namespace file_system {

/// Asks the system about a native path.
FileFacts FactsOf(const std::filesystem::path& path);

/// The text test of `FileIsAscii` on a native path.
bool IsTextFile(const std::filesystem::path& path);

}  // namespace file_system
