#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace file_system {

/// An entry of a directory that is packed, as it stands there: a link is a link.
struct SourceEntry {
  enum class Kind { kFile, kDirectory, kLink, kOther };

  std::filesystem::path::string_type name;
  /// The name as archives hold it: off Windows its bytes, there WTF-8.
  std::string archiveName;
  Kind kind = Kind::kFile;
  uint64_t sizeBytes = 0;
  /// In nanoseconds since 1970 (UTC).
  int64_t modifiedNs = 0;
  /// Off Windows the type and permission bits, there the attributes.
  uint32_t mode = 0;
};

/// Whether `SourceEntry::mode` holds mode bits.
extern const bool kSourcesHaveModes;

/// Appends the entries of a directory, in no order. Returns an error number, or 0.
int ListSource(const std::filesystem::path& directory, std::vector<SourceEntry>* entries);

/// A regular file, open for reading from its beginning to its end.
class SourceFile {
 public:
  SourceFile();
  ~SourceFile();
  SourceFile(const SourceFile&) = delete;
  SourceFile& operator=(const SourceFile&) = delete;

  /// A link is an error, and so are pipes and devices. Returns an error number, or 0.
  int Open(const std::filesystem::path& path);
  /// The size when it was opened.
  uint64_t SizeBytes() const;
  /// Reads `count` bytes, fewer only at the end: how many stands in `*done`.
  int Read(void* buffer, size_t count, size_t* done);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace file_system
