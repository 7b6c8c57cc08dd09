#pragma once

#include <filesystem>

#include "agent/libZel/file_system.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/outcome.h"

// What the functions on files ask of their paths before they do anything.

/// The native path of a file. What ends in a separator is a directory, even where none is.
NativePath ToNativeFile(const ZelString& path);

/// The path as a log may hold it: a URL without its credentials.
ZelString ForLog(const ZelString& path);

/// The failure of an operation whose path has no native form.
Outcome InvalidName(const NativePath& path);

/// Whether `source` is a regular file, else why it cannot be read as one.
Outcome CheckSource(const file_system::Status& source);

/// Whether a file may get the name `path`: nothing stands there or, with `replace`, a regular file
/// other than `source` (which may be null).
Outcome CheckDestination(const std::filesystem::path& path, const file_system::Status* source,
                         bool replace);
