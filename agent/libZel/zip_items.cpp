#include "agent/libZel/zip_items.h"

#include <algorithm>

#include "agent/libZel/archive_limits.h"
#include "agent/libZel/debug_context.h"
#include "agent/libZel/nanoseconds.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/source_tree.h"
#include "agent/libZel/zip_names.h"
#include "agent/libZel/zip_rules.h"

namespace {

using file_system::SourceEntry;

// Collects the files and directories below a directory.
class Scan {
 public:
  Scan(const std::filesystem::path& root, const std::filesystem::path& archive)
      : archive_(archive) {
    open_.push_back({root, {}, 0, 0, 0});
  }

  Outcome Run(std::vector<ZipItem>* items) {
    while (!open_.empty()) {
      ZipItem directory = std::move(open_.back());
      open_.pop_back();
      std::vector<SourceEntry> entries;
      const int error = file_system::ListSource(directory.path, &entries);
      if (error != 0) {
        return FailedBecause(FromNativePath(directory.path) + ": " + file_system::ErrorText(error),
                             error);
      }
      for (const SourceEntry& entry : entries) Add(directory, entry, items);
      if (!directory.name.empty()) items->push_back(std::move(directory));
    }
    std::sort(items->begin(), items->end(),
              [](const ZipItem& a, const ZipItem& b) { return a.name < b.name; });
    return {};
  }

 private:
  void Add(const ZipItem& directory, const SourceEntry& entry, std::vector<ZipItem>* items) {
    ZipItem item;
    item.path = directory.path / entry.name;
    item.name = directory.name + entry.archiveName;
    item.sizeBytes = entry.sizeBytes;
    item.modifiedSeconds = SplitNs(entry.modifiedNs).seconds;
    item.mode = entry.mode;
    if (entry.kind == SourceEntry::Kind::kDirectory) {
      item.name += '/';
      item.sizeBytes = 0;
      open_.push_back(std::move(item));
    } else if (entry.kind == SourceEntry::Kind::kFile) {
      // The archive's older self.
      if (item.path != archive_) items->push_back(std::move(item));
    } else {
      const bool isLink = entry.kind == SourceEntry::Kind::kLink;
      LibraryLog().WarningWithNL("%S is left out of the archive: it is a %s",
                                 FromNativePath(item.path), isLink ? "link" : "pipe or device");
    }
  }

  const std::filesystem::path& archive_;
  std::vector<ZipItem> open_;
};

// Why not all items would come out, or an empty text.
ZelString ReasonToKeepBack(const std::vector<ZipItem>& items, uint64_t archiveBytes) {
  const ArchiveLimits limits = GetArchiveLimits();
  if (items.size() > limits.maxEntries) return "it has more entries than the limit allows";
  const uint64_t allowedBytes = AllowedBytes(limits, archiveBytes);
  uint64_t bytes = 0;
  ZipNameRules rules(limits, items.size());
  for (const ZipItem& item : items) {
    bytes += item.sizeBytes;
    if (bytes > allowedBytes) return "more would come out of it than the limits allow";
    const ZelString name = zip_names::FromBytes(item.name);
    const char* const reason = rules.ReasonToRefuse(name.Utf8());
    if (reason != nullptr) return "entry \"" + name + "\": " + reason;
  }
  return {};
}

}  // namespace

Outcome ListZipItems(const std::filesystem::path& directory, const std::filesystem::path& archive,
                     std::vector<ZipItem>* items) {
  return Scan(directory, archive).Run(items);
}

void WarnOfZipItems(const std::vector<ZipItem>& items, const std::filesystem::path& archive,
                    uint64_t archiveBytes) {
  const ZelString reason = ReasonToKeepBack(items, archiveBytes);
  if (reason.IsEmpty()) return;
  LibraryLog().WarningWithNL("%S would not be unpacked whole by the limits in force here: %S",
                             FromNativePath(archive), reason);
}
