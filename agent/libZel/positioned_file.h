#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>

namespace file_system {

/// A regular file that is read at any place. Programs that the agent starts do not inherit it. Any
/// number of threads may read at once.
class PositionedFile {
 public:
  PositionedFile();
  ~PositionedFile();
  PositionedFile(const PositionedFile&) = delete;
  PositionedFile& operator=(const PositionedFile&) = delete;

  /// Opens a file: pipes, devices and directories are an error. Returns an error number, or 0.
  int Open(const std::filesystem::path& path);
  /// The size when it was opened.
  uint64_t SizeBytes() const;
  /// Reads `count` bytes from `offset`, fewer only at the end of the file: how many stands in
  /// `*done`. Returns an error number, or 0.
  int ReadAt(uint64_t offset, void* buffer, size_t count, size_t* done) const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace file_system
