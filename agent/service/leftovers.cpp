#include "agent/service/leftovers.h"

#include <algorithm>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

// The names that libZel gives to files that are not complete yet.
bool IsTemporary(const fs::path& name) {
  constexpr size_t kDigits = 16;
  const std::u8string text = name.u8string();
  const std::u8string_view start = u8".zel-", end = u8".tmp";
  if (text.size() != start.size() + kDigits + end.size()) return false;
  const auto isHex = [](char8_t c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
  return text.starts_with(start) && text.ends_with(end) &&
         std::all_of(text.begin() + start.size(), text.end() - end.size(), isHex);
}

/// The entries of a directory for which `is` holds; none where it cannot be read.
template <typename Predicate>
std::vector<fs::path> EntriesOf(const fs::path& directory, Predicate is) {
  std::vector<fs::path> found;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code unknown;
    if (is(entry->symlink_status(unknown), *entry)) found.push_back(entry->path());
  }
  return found;
}

void RemoveTemporariesIn(const fs::path& directory) {
  const auto files = EntriesOf(directory, [](fs::file_status status, const fs::path& path) {
    return fs::is_regular_file(status) && IsTemporary(path.filename());
  });
  std::error_code ignored;
  for (const fs::path& file : files) fs::remove(file, ignored);
}

}  // namespace

void RemoveLeftovers(const fs::path& home) {
  const fs::path data = home / "data";
  RemoveTemporariesIn(home / "config");
  RemoveTemporariesIn(data);
  const auto directories = EntriesOf(
      data, [](fs::file_status status, const fs::path&) { return fs::is_directory(status); });
  for (const fs::path& directory : directories) RemoveTemporariesIn(directory);
}
