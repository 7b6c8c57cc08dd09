#pragma once

#include <cstdint>

/// What may come out of one archive. An entry beyond a limit does not come out.
struct ArchiveLimits {
  /// This much may come out of any archive, unless `maxBytes` is less: what consists of zeros for
  /// the most part, a new database for example, becomes a thousandth of its size.
  static constexpr uint64_t kRatioFloorBytes = uint64_t{1} << 30;

  uint32_t maxEntries = 1'000'000;
  /// Of everything that comes out.
  uint64_t maxBytes = uint64_t{1} << 40;
  /// How many times the archive's own size may come out of it, beyond `kRatioFloorBytes`.
  uint32_t maxRatio = 200;
  /// Whether names must be ones that Windows can store, on every platform: no reserved names, no
  /// alternate streams, none that end in a dot or blank, no two that differ only in case.
  bool windowsNames = true;
};

/// Holds for archives opened from now on, in the whole process.
void SetArchiveLimits(const ArchiveLimits& limits);
ArchiveLimits GetArchiveLimits();
