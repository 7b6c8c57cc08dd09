#pragma once

#include <zip.h>

#include "agent/libZel/outcome.h"

/// Why a call of libzip failed. Where a file could not be read or written, the number is the
/// system's, as our sources have told it to libzip, which would take any for one of errno.
inline Outcome OutcomeOf(zip_error_t* error) {
  const bool isSystems = zip_error_system_type(error) == ZIP_ET_SYS;
  const int code = isSystems ? zip_error_code_system(error) : 0;
  if (code != 0) return OutcomeOf(code);
  return FailedBecause(ZelString(zip_error_strerror(error)));
}
