#pragma once

#include <filesystem>
#include <string>

#include "libZel/string.h"

/// A library of functions for scripts, loaded until the process ends.
struct FunctionLibrary {
  /// What `GetProcAddress` takes; null when it could not be loaded.
  void* handle = nullptr;
  /// Its function "MarlinModuleOpen"; null when it has none.
  void* open = nullptr;
  /// Why it could not be loaded, for the log.
  std::string reason;
};

/// The library `path`, loaded at its first use; a failure is tried anew. Any number of threads may
/// call at once. Throws only for want of memory.
FunctionLibrary LoadFunctionLibrary(const ZelString& path);

/// The system's part: loads the library, without remembering it.
FunctionLibrary LoadNativeLibrary(const std::filesystem::path& path);
