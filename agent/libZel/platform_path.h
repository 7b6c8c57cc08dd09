#pragma once

#include <string>

#include "agent/libZel/native_path.h"
#include "agent/libZel/path_parts.h"

// What paths look like on this platform.
namespace platform_path {

/// The separator of full paths.
extern const char kSeparator;

/// Whether a path that starts with "//" names a share, as one that starts with "\\" does. If not,
/// it starts at the root.
extern const bool kSlashesNameShares;

/// Whether "/name" starts at the root of the working directory's drive, there being several roots.
extern const bool kRootsHaveDrives;

/// The process's working directory as a full path. Throws std::system_error.
ZelString WorkingDirectory();

/// The native form of an absolute path without "..", or the reason why it has none.
NativePath Assemble(const PathParts& parts);

}  // namespace platform_path
