#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "agent/libZel/native_path.h"
#include "libZel/string.h"

/// A directory of its own for one test, gone with it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("zel-test-" + std::to_string(random()) + "-" + std::to_string(random()));
    std::filesystem::create_directory(path_);
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Native() const { return path_; }
  std::filesystem::path Native(const ZelString& name) const {
    return ToNativePath(operator/(name)).path;
  }
  /// The path of an entry, as callers of the library write it.
  ZelString operator/(const ZelString& name) const { return FromNativePath(path_) + "/" + name; }

  size_t CountEntries() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(path_),
                                             std::filesystem::directory_iterator()));
  }

 private:
  std::filesystem::path path_;
};

inline void WriteFile(const std::filesystem::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
