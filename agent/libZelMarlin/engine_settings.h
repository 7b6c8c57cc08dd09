#pragma once

#include <cstdint>

#include "libZel/string.h"

constexpr uint64_t kMib = 1024 * 1024;

/// The engine's settings: section [limits] of its INI file.
struct EngineSettings {
  /// What one script may have at once.
  uint64_t memoryBytes = 256 * kMib;
  /// How many instructions one run may take; 0 is without limit.
  uint64_t instructions = 10'000'000'000;
  /// How many scripts may run inside each other on one thread.
  int depth = 16;
};

/// Reads `iniPath`. What is missing has its default; so has what cannot be used, and a warning in
/// the library's log names file, key and value.
EngineSettings ReadEngineSettings(const ZelString& iniPath);
