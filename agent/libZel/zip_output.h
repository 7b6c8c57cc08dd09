#pragma once

#include <zip.h>

namespace file_system {
class PendingFile;
}

/// What libzip writes an archive to `file` through; null, with `*error` set, for want of memory.
/// The file must outlive it. It is not committed.
zip_source_t* MakeZipOutput(file_system::PendingFile* file, zip_error_t* error);
