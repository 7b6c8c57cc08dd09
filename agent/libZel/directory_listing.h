#pragma once

#include "agent/libZel/directory_reader.h"

/// The reader that stands on the entry `path`, if this thread's last `ReadDirectory` returned it
/// and its facts may be told; else null.
file_system::DirectoryReader* ReaderOfEntry(const ZelString& path);
