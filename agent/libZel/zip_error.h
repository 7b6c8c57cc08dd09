#pragma once

#include <zip.h>

#include "agent/libZel/outcome.h"

/// What a source of ours has to tell libzip when it fails.
class ZipFailure {
 public:
  ZipFailure() { zip_error_init(&error_); }
  ~ZipFailure() { zip_error_fini(&error_); }
  ZipFailure(const ZipFailure&) = delete;
  ZipFailure& operator=(const ZipFailure&) = delete;

  /// Returns what the source then answers.
  zip_int64_t Set(int code, int systemError) {
    zip_error_set(&error_, code, systemError);
    return -1;
  }
  /// Answers ZIP_SOURCE_ERROR.
  zip_int64_t Tell(void* data, zip_uint64_t length) {
    return zip_error_to_data(&error_, data, length);
  }
  zip_error_t* Get() { return &error_; }

 private:
  zip_error_t error_;
};

/// Why a call of libzip failed. Where a file could not be read or written, the number is the
/// system's, as our sources have told it to libzip, which would take any for one of errno.
inline Outcome OutcomeOf(zip_error_t* error) {
  const bool isSystems = zip_error_system_type(error) == ZIP_ET_SYS;
  const int code = isSystems ? zip_error_code_system(error) : 0;
  if (code != 0) return OutcomeOf(code);
  return FailedBecause(ZelString(zip_error_strerror(error)));
}
