#include "agent/zelctl/process_output.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "agent/libZel/ascii.h"
#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/name_match.h"
#include "agent/zelctl/text_output.h"
#include "libZel/string.h"

namespace {

constexpr size_t kIndentPerLevel = 2;
/// Deeper rows are not indented further: a long chain must not fill the screen with blanks.
constexpr size_t kDeepestIndent = 32;
constexpr uint64_t kBytesPerKib = 1024;

/// The number at the start of the text; 0 without one.
uint64_t LeadingNumber(std::string_view text) {
  uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

/// 0 for an ID that is none.
uint32_t IdOf(const ZelContainer& row, const char* key) {
  const uint64_t id = LeadingNumber(TextOf(row, key));
  return id > UINT32_MAX ? 0 : static_cast<uint32_t>(id);
}

ProcessRow ReadProcessRow(const ZelContainer& container) {
  ProcessRow row;
  row.id = IdOf(container, "ProcessID");
  row.parentId = IdOf(container, "ProcessParentID");
  row.owner = TextOf(container, "ProcessOwner");
  row.name = TextOf(container, "ProcessName");
  row.path = TextOf(container, "ProcessPath");
  row.cpuTime = TextOf(container, "ProcessTotalCpu");
  container.GetInt32("ProcessCurrentCpu", &row.cpuPercent, kNoIndex);
  container.GetInt32("ProcessThreadsCount", &row.threads, kNoIndex);
  // The unsigned number travels in 32 signed bits.
  uint32_t memoryUsedKib = 0;
  container.GetInt32("ProcessMemoryUsed", &memoryUsedKib, kNoIndex);
  row.memoryUsedKib = memoryUsedKib;
  return row;
}

/// Of "H:MM:SS", with as many hours as there are.
uint64_t SecondsOf(std::string_view time) {
  uint64_t seconds = 0;
  for (;;) {
    seconds = seconds * 60 + LeadingNumber(time);
    const size_t colon = time.find(':');
    if (colon == std::string_view::npos) return seconds;
    time.remove_prefix(colon + 1);
  }
}

using Before = std::function<bool(const ProcessRow&, const ProcessRow&)>;

Before FindProcessOrder(const std::string& name) {
  using Row = const ProcessRow&;
  if (name == "cpu") return [](Row a, Row b) { return a.cpuPercent > b.cpuPercent; };
  if (name == "memory") return [](Row a, Row b) { return a.memoryUsedKib > b.memoryUsedKib; };
  if (name == "time")
    return [](Row a, Row b) { return SecondsOf(a.cpuTime) > SecondsOf(b.cpuTime); };
  if (name == "name") return [](Row a, Row b) { return AsciiLower(a.name) < AsciiLower(b.name); };
  if (name == "owner")
    return [](Row a, Row b) { return AsciiLower(a.owner) < AsciiLower(b.owner); };
  if (name == "id") return [](Row a, Row b) { return a.id < b.id; };
  throw Failure(ExitStatus::kUsage, "there is no order by '" + name + "'");
}

/// Walks from the rows without parents to their children. Each row is visited once, whatever the
/// answer says about parents, and with a list of what is to be visited instead of recursion.
class Tree {
 public:
  explicit Tree(std::vector<ProcessRow> rows) : rows_(std::move(rows)), isTaken_(rows_.size()) {
    std::unordered_map<uint32_t, size_t> rowOfId;
    for (size_t i = 0; i < rows_.size(); ++i) rowOfId.emplace(rows_[i].id, i);
    children_.resize(rows_.size());
    for (size_t i = 0; i < rows_.size(); ++i) {
      const auto parent = rowOfId.find(rows_[i].parentId);
      const bool hasParent = parent != rowOfId.end() && parent->second != i;
      if (hasParent) children_[parent->second].push_back(i);
      if (!hasParent) tops_.push_back(i);
    }
  }

  std::vector<ProcessRow> Arranged() {
    for (const size_t top : tops_) Take(top);
    // What is left hangs in rings.
    for (size_t i = 0; i < rows_.size(); ++i) Take(i);
    return std::move(arranged_);
  }

 private:
  struct Visit {
    size_t row;
    size_t depth;
  };

  void Take(size_t top) {
    std::vector<Visit> open = {{top, 0}};
    while (!open.empty()) {
      const Visit visit = open.back();
      open.pop_back();
      if (isTaken_[visit.row]) continue;
      isTaken_[visit.row] = true;
      rows_[visit.row].depth = visit.depth;
      arranged_.push_back(std::move(rows_[visit.row]));
      const std::vector<size_t>& children = children_[visit.row];
      for (auto child = children.rbegin(); child != children.rend(); ++child) {
        open.push_back({*child, visit.depth + 1});
      }
    }
  }

  std::vector<ProcessRow> rows_;
  std::vector<bool> isTaken_;
  std::vector<std::vector<size_t>> children_;
  std::vector<size_t> tops_;
  std::vector<ProcessRow> arranged_;
};

/// Puts blanks before the column's cells so that they end at the same place.
void AlignRight(size_t column, std::vector<std::vector<std::string>>* lines) {
  size_t width = 0;
  for (const std::vector<std::string>& line : *lines) width = std::max(width, line[column].size());
  for (std::vector<std::string>& line : *lines) {
    line[column].insert(0, width - line[column].size(), ' ');
  }
}

std::vector<std::string> CellsOf(const ProcessRow& row, bool withPaths) {
  const size_t indent = std::min(row.depth, kDeepestIndent) * kIndentPerLevel;
  const bool showsPath = withPaths && !row.path.empty();
  return {std::to_string(row.id),
          std::to_string(row.parentId),
          row.owner,
          std::to_string(row.cpuPercent),
          row.cpuTime,
          FormatShortSize(row.memoryUsedKib * kBytesPerKib),
          std::to_string(row.threads),
          std::string(indent, ' ') + (showsPath ? row.path : row.name)};
}

}  // namespace

std::vector<ProcessRow> ReadProcessRows(const ZelContainer& listing) {
  std::vector<ProcessRow> rows;
  ZelContainer row;
  for (uint32_t i = 0; listing.GetContainer("Values", &row, i); ++i)
    rows.push_back(ReadProcessRow(row));
  return rows;
}

bool MatchesProcess(const ProcessRow& row, const std::string& filter) {
  return MatchesPattern(row.name, filter) || MatchesPattern(row.path, filter) ||
         MatchesPattern(row.owner, filter) || std::to_string(row.id) == filter;
}

void SortProcesses(const std::string& order, bool isReversed, std::vector<ProcessRow>* rows) {
  const Before before = FindProcessOrder(order);
  const Before byId = FindProcessOrder("id");
  std::stable_sort(rows->begin(), rows->end(), byId);
  std::stable_sort(rows->begin(), rows->end(), [&](const ProcessRow& a, const ProcessRow& b) {
    return isReversed ? before(b, a) : before(a, b);
  });
}

std::vector<ProcessRow> ArrangeAsTree(std::vector<ProcessRow> rows) {
  return Tree(std::move(rows)).Arranged();
}

std::string FormatProcesses(const std::vector<ProcessRow>& rows, bool withPaths) {
  if (rows.empty()) return {};
  std::vector<std::vector<std::string>> lines = {
      {"PID", "PARENT", "OWNER", "CPU%", "TIME", "MEMORY", "THREADS", "NAME"}};
  for (const ProcessRow& row : rows) lines.push_back(CellsOf(row, withPaths));
  for (const size_t column : {0, 1, 3, 4, 5, 6}) AlignRight(column, &lines);
  const std::vector<std::string> header = lines.front();
  lines.erase(lines.begin());
  return FormatTable(header, lines);
}
