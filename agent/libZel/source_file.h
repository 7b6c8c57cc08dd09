#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>

namespace file_system {

/// A regular file that is read from its start to its end.
class SourceFile {
 public:
  SourceFile();
  ~SourceFile();
  SourceFile(const SourceFile&) = delete;
  SourceFile& operator=(const SourceFile&) = delete;

  /// An error number of the system, or 0. Pipes and devices are refused without waiting for them.
  int Open(const std::filesystem::path& path);
  /// Reads up to `size` bytes; 0 in `*count` is the end. An error number of the system, or 0.
  int Read(char* buffer, size_t size, size_t* count);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace file_system
