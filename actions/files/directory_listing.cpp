#include "actions/files/directory_listing.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "module/direct_access.h"

namespace {

constexpr const char* kAscending = "Asc";

constexpr uint32_t kHiddenAttribute = 2;
constexpr uint32_t kSystemAttribute = 4;
constexpr uint32_t kDirectoryAttribute = 16;

constexpr int64_t kUnknownSize = -1;
constexpr uint32_t kUnknownTime = 0xFFFFFFFF;

/// One entry of the directory. What nobody asked for stays 0 and false.
struct Entry {
  ZelString name;
  bool isFile = false;
  int64_t sizeBytes = 0;
  uint32_t modifyTime = 0;
  uint32_t mode = 0;
  bool isText = false;
  bool isHidden = false;
};

enum class Column { kName, kSize, kMode, kModifyTime };

struct SortOrder {
  Column column = Column::kName;
  bool isAscending = true;
};

struct Request {
  ZelString path;
  ZelString consoleUser;
  SortOrder order;
  bool withDetails = true;
  int32_t offset = 0;
  /// 0 means all.
  int32_t count = 0;
};

Column ColumnOf(const ZelString& attribute) {
  if (attribute == "_COLNAME_SIZE_") return Column::kSize;
  if (attribute == "_COLNAME_ACCESS_") return Column::kMode;
  if (attribute == "_COLNAME_MODIFIED_") return Column::kModifyTime;
  return Column::kName;
}

Request ReadRequest(const ZelContainer& params) {
  Request request;
  request.path = ReadString(params, "Path");
  request.consoleUser = ReadString(params, kDACurrentConsoleUser);
  request.order.column = ColumnOf(ReadString(params, "SortAttr"));
  const ZelString direction = ReadString(params, "SortOrder");
  request.order.isAscending = direction.IsEmpty() || direction == kAscending;
  request.withDetails = ReadBool(params, "Parameters", true);
  params.GetInt32("Offset", &request.offset, kNoIndex);
  params.GetInt32("Count", &request.count, kNoIndex);
  return request;
}

// ---- Gathering ----

struct Close {
  void operator()(DIR* directory) const { CloseDirectory(directory); }
};

bool IsListed(const ZelString& name) {
  return name != "." && name != ".." && name != "System Volume Information";
}

bool IsFile(const ZelString& path) {
  const bool isDirectory = (FileGetAttributes(path) & kDirectoryAttribute) != 0;
  const bool isSystem = (FileGetAttributes(path) & kSystemAttribute) != 0;
  // Page files and their like may look like directories.
  return !isDirectory || (isSystem && path.EndsWith(".sys", true));
}

Entry Examine(const DIR& directory, const ZelString& path, ZelString name, bool withDetails) {
  Entry entry;
  entry.isFile = IsFile(path);
  entry.name = std::move(name);
  if (!withDetails) return entry;

  const int64_t size = entry.isFile ? FileGetSize64(path) : 0;
  entry.sizeBytes = size == kUnknownSize ? 0 : size;
  const uint32_t time = FileGetWriteTime(path);
  entry.modifyTime = time == kUnknownTime ? 0 : time;
  entry.mode = FileGetMode(path);
  entry.isText = FileIsAscii(path) != 0;
  entry.isHidden = (directory.attributes & kHiddenAttribute) != 0;
  return entry;
}

/// False when the directory could not be opened.
bool Gather(const ZelString& path, bool withDetails, std::vector<Entry>* entries) {
  const std::unique_ptr<DIR, Close> directory(OpenDirectory(path));
  if (!directory) return false;

  while (const dirent* found = ReadDirectory(directory.get())) {
    ZelString name(found->name);
    if (!IsListed(name)) continue;
    const ZelString fullPath = path + name;
    entries->push_back(Examine(*directory, fullPath, std::move(name), withDetails));
  }
  return true;
}

// ---- Sorting ----

/// Whether one number goes before the other; 0 when they are equal.
template <typename Number>
int Compare(Number a, Number b) {
  return (a > b) - (a < b);
}

int CompareColumn(const Entry& a, const Entry& b, Column column) {
  switch (column) {
    case Column::kSize:
      return Compare(a.sizeBytes, b.sizeBytes);
    case Column::kMode:
      return Compare(a.mode, b.mode);
    case Column::kModifyTime:
      return Compare(a.modifyTime, b.modifyTime);
    case Column::kName:
      break;
  }
  return 0;
}

/// Directories first in both directions; then the column; then the name. Of two equal names each
/// goes before the other in descending order.
bool GoesBefore(const Entry& a, const Entry& b, const SortOrder& order) {
  if (a.isFile != b.isFile) return b.isFile;
  const int comparison = CompareColumn(a, b, order.column);
  if (comparison != 0) return (comparison < 0) == order.isAscending;
  return (a.name < b.name) == order.isAscending;
}

using Index = std::vector<const Entry*>;

/// Quicksort around the middle element. Consoles rely on the order in which it leaves entries of
/// equal name. The smaller part is sorted by recursion, so the stack stays flat; where the parts
/// stay lopsided (names made for that), `splitsLeft` runs out and a sort that cannot degenerate
/// takes over: entries of different names have only one order.
void QuickSort(Index* index, size_t left, size_t right, const SortOrder& order,
               unsigned splitsLeft) {
  Index& entries = *index;
  while (left < right) {
    if (splitsLeft-- == 0) {
      const auto begin = entries.begin();
      std::sort(begin + static_cast<ptrdiff_t>(left), begin + static_cast<ptrdiff_t>(right) + 1,
                [&](const Entry* a, const Entry* b) {
                  return GoesBefore(*a, *b, order) && !GoesBefore(*b, *a, order);
                });
      return;
    }
    std::swap(entries[left], entries[(left + right) / 2]);
    size_t last = left;
    for (size_t i = left + 1; i <= right; ++i) {
      if (GoesBefore(*entries[i], *entries[left], order)) std::swap(entries[++last], entries[i]);
    }
    std::swap(entries[left], entries[last]);

    if (last - left < right - last) {
      if (last > left) QuickSort(index, left, last - 1, order, splitsLeft);
      left = last + 1;
    } else {
      // The left part is the larger one: there is something in it.
      if (last < right) QuickSort(index, last + 1, right, order, splitsLeft);
      right = last - 1;
    }
  }
}

Index Sorted(const std::vector<Entry>& entries, const SortOrder& order) {
  Index index;
  index.reserve(entries.size());
  for (const Entry& entry : entries) index.push_back(&entry);
  if (index.empty()) return index;
  // Far more than random parts need, far less than one for each entry.
  const auto mostSplits = 8 * static_cast<unsigned>(std::bit_width(index.size()));
  QuickSort(&index, 0, index.size() - 1, order, mostSplits);
  return index;
}

// ---- Answering ----

ZelContainer RowOf(const Entry& entry, bool withDetails) {
  static const ZelString kName("Name"), kIsDirectory("IsDirectory"), kSize("Size"),
      kModifyDate("ModifyDate"), kMode("Mode"), kIsText("IsText"), kIsHidden("IsHidden");
  ZelContainer row;
  row.SetString(kName, entry.name, kNoIndex);
  row.SetBool(kIsDirectory, !entry.isFile, kNoIndex);
  if (!withDetails) return row;

  row.SetInt64(kSize, entry.sizeBytes, kNoIndex);
  row.SetInt32(kModifyDate, static_cast<int32_t>(entry.modifyTime), kNoIndex);
  row.SetInt32(kMode, static_cast<int32_t>(entry.mode), kNoIndex);
  row.SetBool(kIsText, entry.isText, kNoIndex);
  row.SetBool(kIsHidden, entry.isHidden, kNoIndex);
  return row;
}

void WritePage(const Index& entries, const Request& request, ZelContainer* params) {
  const ZelString values(kValues);
  const auto total = static_cast<int64_t>(entries.size());
  const int64_t end =
      request.count == 0 ? total : std::min(int64_t{request.offset} + request.count, total);
  uint32_t row = 0;
  for (int64_t i = std::max(request.offset, 0); i < end; ++i, ++row) {
    const Entry& entry = *entries[static_cast<size_t>(i)];
    params->SetContainer(values, RowOf(entry, request.withDetails), row);
  }
  if (request.count != 0) params->SetInt32("Total", static_cast<int32_t>(total), kNoIndex);
}

}  // namespace

ResultCode CoreUtilsGetDirList(ZelContainer* params) {
  Request request = ReadRequest(*params);
  params->Clear();
  request.path.ReplaceAll("\\", "/", false);
  if (!request.path.EndsWith("/")) request.path += "/";

  if (!MayRead(request.path, request.consoleUser)) return kAccessRefused;

  std::vector<Entry> entries;
  if (!Gather(request.path, request.withDetails, &entries)) return kFailure;

  WritePage(Sorted(entries, request.order), request, params);
  return kSuccess;
}
