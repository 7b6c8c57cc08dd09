#pragma once

#include <cstdint>
#include <filesystem>
#include <set>

// Lines that this process failed to change, kept for as long as their file has the content that it
// had then. Any number of threads may call at once.
namespace edit_failures {

/// Lines of one file, counted from 1.
struct Lines {
  std::set<unsigned long> numbers;
  /// Too many to be listed: all of the file's.
  bool isAll = false;

  bool Contain(unsigned long line) const { return isAll || numbers.contains(line); }
  bool AreNone() const { return !isAll && numbers.empty(); }
};

/// Remembers a line of a file whose content has the stamp. Of very many files, those that were
/// added to first are forgotten.
void Add(const std::filesystem::path& path, uint64_t stamp, unsigned long line);

/// The lines of a file whose content has the stamp; what belongs to another content is forgotten.
Lines Find(const std::filesystem::path& path, uint64_t stamp);

}  // namespace edit_failures
