#pragma once

#include <chrono>
#include <optional>
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

/// What a program that has ended answered: `status` is what `waitpid` told of it, nothing where
/// that was lost, `text` all that it wrote.
BrowseAnswer ReadBrowseAnswer(std::optional<int> status, const std::string& text);

/// How long a program that was killed is waited for; it may be one that the agent may not kill.
constexpr std::chrono::seconds kBrowseEndPatience{5};

/// Runs `program` with `arguments`, without an environment, and takes its answer: by exit code 0
/// and names that each end with a NUL, by 2 and a reason that there is no such domain, by any other
/// and a reason that there is no browser. More than `kMaxBrowseNames` are `kMoreNames` and none.
/// Whatever does not answer like this, or within `limit`, counts as no browser. Where the process
/// ignores SIGCHLD, exit codes are lost: what ends with a NUL is then a list, and anything else the
/// reason that there is no browser.
///
/// When the call returns, the program has ended, and what it may have started in its session has
/// been killed, unless SIGCHLD is ignored and the program ended first. One that does not end for
/// `endPatience` after it was killed is left to the library's reaper, which the log tells. Throws
/// std::bad_alloc and nothing else; any number of threads may call at once.
BrowseAnswer RunBrowseProgram(const std::string& program, const std::vector<std::string>& arguments,
                              std::chrono::milliseconds limit,
                              std::chrono::milliseconds endPatience = kBrowseEndPatience);
