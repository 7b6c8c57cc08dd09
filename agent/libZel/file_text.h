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

/// A file's first line without its end, empty when it has none; nothing when it cannot be opened.
inline std::optional<std::string> FirstLineOfFile(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) return {};
  std::string line;
  std::getline(stream, line);
  if (line.ends_with('\r')) line.pop_back();
  return line;
}
