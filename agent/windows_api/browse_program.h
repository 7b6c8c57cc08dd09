#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "libZel/string.h"
#include "windows_api.h"

constexpr NET_API_STATUS kMoreNames = 234;
constexpr NET_API_STATUS kNoSuchDomain = 1355;
constexpr NET_API_STATUS kNoBrowserFound = 6118;

/// What a browse program found out.
struct BrowseAnswer {
  /// 0, `kNoSuchDomain`, `kMoreNames` or `kNoBrowserFound`.
  NET_API_STATUS status = kNoBrowserFound;
  /// On success all of them, in the browser's order: 1 to `kMaxBrowseNames`, none of them empty.
  std::vector<ZelString> names;
  /// On failure why, in one line.
  ZelString reason;
};

constexpr size_t kMaxBrowseNames = 8192;

/// Runs `program` with `arguments` and takes its answer: by exit code 0 and names that each end
/// with a NUL, by 2 and a reason that there is no such domain, by any other and a reason that there
/// is no browser. More than `kMaxBrowseNames` are `kMoreNames` and none. Whatever does not answer like this, or within `limit`, counts as no browser. When
/// the call returns, the program has ended, and what it may have started in its session has been
/// killed. Throws std::bad_alloc and nothing else; any number of threads may call at once.
BrowseAnswer RunBrowseProgram(const std::string& program, const std::vector<std::string>& arguments,
                              std::chrono::milliseconds limit);
