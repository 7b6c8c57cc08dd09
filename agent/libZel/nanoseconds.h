#pragma once

#include <cstdint>

// Times in nanoseconds since 1970. 64 bits hold those from 1677 to 2262.

constexpr int64_t kNsPerSecond = 1'000'000'000;

/// Whole seconds, rounded down, and what is left of the next one.
struct SecondsAndNs {
  int64_t seconds = 0;
  int64_t ns = 0;
};

constexpr SecondsAndNs SplitNs(int64_t ns) {
  const int64_t seconds = ns / kNsPerSecond - (ns % kNsPerSecond < 0 ? 1 : 0);
  return {seconds, ns - seconds * kNsPerSecond};
}
