#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

// Small files that hold secrets. One implementation for each platform.

/// Replaces the file's content: a temporary beside it, readable by its owner alone, is written to
/// the disk and renamed. Throws std::runtime_error naming the file; it is then unchanged.
void WritePrivateFile(const std::filesystem::path& file, std::string_view content);

/// Held while a private file is read, changed and written: whoever else wants to, in this process
/// or another, waits. What it locks is a file beside, which stays. Throws std::runtime_error.
class PrivateFileLock {
 public:
  explicit PrivateFileLock(const std::filesystem::path& file);
  ~PrivateFileLock();
  PrivateFileLock(const PrivateFileLock&) = delete;
  PrivateFileLock& operator=(const PrivateFileLock&) = delete;

 private:
  std::intptr_t handle_;
};

/// A text that changes when the file is written or replaced; empty when there is no such file.
std::string FileStamp(const std::filesystem::path& file);
