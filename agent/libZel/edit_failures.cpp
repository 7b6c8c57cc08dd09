#include "agent/libZel/edit_failures.h"

#include <algorithm>
#include <list>
#include <mutex>

namespace edit_failures {
namespace {

constexpr size_t kMaxFiles = 64;
constexpr size_t kMaxLines = 64;

struct File {
  std::filesystem::path path;
  uint64_t stamp = 0;
  Lines lines;
};

struct Table {
  std::mutex mutex;
  // The newest first.
  std::list<File> files;

  auto FindFile(const std::filesystem::path& path) {
    return std::find_if(files.begin(), files.end(),
                        [&](const File& file) { return file.path.native() == path.native(); });
  }
};

Table& Failures() {
  // Never destroyed: threads may outlive the library's statics.
  static auto* const table = new Table;
  return *table;
}

}  // namespace

void Add(const std::filesystem::path& path, uint64_t stamp, unsigned long line) {
  Table& table = Failures();
  const std::lock_guard lock(table.mutex);
  auto file = table.FindFile(path);
  if (file != table.files.end() && file->stamp != stamp) {
    table.files.erase(file);
    file = table.files.end();
  }
  if (file == table.files.end()) {
    table.files.push_front({path, stamp, {}});
    file = table.files.begin();
    if (table.files.size() > kMaxFiles) table.files.pop_back();
  }

  Lines& lines = file->lines;
  if (!lines.isAll) lines.numbers.insert(line);
  if (lines.numbers.size() > kMaxLines) lines = {{}, true};
}

Lines Find(const std::filesystem::path& path, uint64_t stamp) {
  Table& table = Failures();
  const std::lock_guard lock(table.mutex);
  const auto file = table.FindFile(path);
  if (file == table.files.end()) return {};
  if (file->stamp == stamp) return file->lines;
  table.files.erase(file);
  return {};
}

}  // namespace edit_failures
