#pragma once

#include <zip.h>

#include "libZel/string.h"

/// The text of one of libzip's errors.
inline ZelString TextOf(zip_error_t* error) {
  return ZelString(zip_error_strerror(error));
}
