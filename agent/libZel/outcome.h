#pragma once

#include "agent/libZel/file_system.h"
#include "libZel/string.h"

/// How an operation on a file ended.
struct Outcome {
  /// 0 on success, else the system's error number, or -1 where the system had none.
  int code = 0;
  /// Why it failed, for the log.
  ZelString reason;

  explicit operator bool() const { return code == 0; }
};

inline Outcome FailedBecause(const ZelString& reason, int code = -1) {
  return {code, reason};
}

inline Outcome OutcomeOf(int error) {
  return error == 0 ? Outcome{} : Outcome{error, file_system::ErrorText(error)};
}
