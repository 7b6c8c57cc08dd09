#pragma once

#include <exception>

#include "agent/libZel/debug_context.h"

/// Writes "`what` failed: reason" to the library's log. Never throws.
inline void LogException(const char* what, const char* reason) noexcept {
  try {
    LibraryLog().ErrorWithNL("%s failed: %s", what, reason);
  } catch (...) {
    // Without memory there is no log line either.
  }
}

/// Runs `operation` at the library's boundary, where no exception may pass: one becomes `failure`
/// and a line in the log.
template <typename Result, typename Operation>
Result Guarded(const char* what, const Result& failure, Operation operation) {
  try {
    return operation();
  } catch (const std::exception& error) {
    LogException(what, error.what());
  } catch (...) {
    LogException(what, "unknown exception");
  }
  return failure;
}
