#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

#include "tests/fuzz/require.h"

/// A directory of this process's own, for the inputs that are files; gone with it.
class Scratch {
 public:
  Scratch() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-fuzz-XXXXXX").native();
    Require(mkdtemp(pattern.data()) != nullptr);
    path_ = pattern;
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }
  const std::filesystem::path& Path() const { return path_; }

  /// Leaves the directory empty.
  void Clear() const {
    for (const auto& entry : std::filesystem::directory_iterator(path_))
      std::filesystem::remove_all(entry.path());
  }

 private:
  std::filesystem::path path_;
};

inline void WriteBytes(const std::filesystem::path& file, std::string_view bytes) {
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string ReadBytes(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}
