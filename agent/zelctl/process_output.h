#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "libZel/container.h"

// Processes as CoreUtilsListProcess tells them, for people.

struct ProcessRow {
  uint32_t id = 0;
  uint32_t parentId = 0;
  std::string owner;
  std::string name;
  std::string path;
  int32_t cpuPercent = 0;
  std::string cpuTime;         ///< "H:MM:SS"
  uint64_t memoryUsedKib = 0;  ///< modulo 4 TiB
  int32_t threads = 0;
  size_t depth = 0;  ///< below how many ancestors the row stands in a tree
};

/// The rows of the answer, in its order.
std::vector<ProcessRow> ReadProcessRows(const ZelContainer& listing);

/// Whether `filter` is found in name, path or owner (see `MatchesPattern`), or is the process's ID.
bool MatchesProcess(const ProcessRow& row, const std::string& filter);

/// Sorts by "cpu", "memory" or "time", largest first, or by "name", "id" or "owner"; equal ones by
/// ID. `isReversed` turns the order around. Throws `Failure` (kUsage) for any other order.
void SortProcesses(const std::string& order, bool isReversed, std::vector<ProcessRow>* rows);

/// Puts each process below its parent and sets `depth`. Siblings, and those whose parent is not
/// among the rows, keep their order. Where parents form a ring, its first row counts as the top.
std::vector<ProcessRow> ArrangeAsTree(std::vector<ProcessRow> rows);

/// A table with a line for each row; empty without rows.
std::string FormatProcesses(const std::vector<ProcessRow>& rows, bool withPaths);
