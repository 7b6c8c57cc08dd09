#pragma once

#include <zip.h>

namespace file_system {
class PositionedFile;
}

/// What libzip reads the archive `file` through; null, with `*error` set, for want of memory. The
/// file must outlive it.
zip_source_t* MakeZipSource(const file_system::PositionedFile& file, zip_error_t* error);
