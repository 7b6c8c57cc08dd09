#pragma once

#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <optional>
#include <string>

/// All of a file's bytes; nothing when they cannot be read. A directory opens on some systems, and
/// then reading it throws.
inline std::optional<std::string> ReadFileText(const std::filesystem::path& file) {
  try {
    std::ifstream stream(file, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(stream), {}};
    if (!stream.is_open() || stream.bad()) return {};
    return text;
  } catch (const std::ios_base::failure&) {
    return {};
  }
}
