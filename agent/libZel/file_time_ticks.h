#pragma once

#include <cstdint>

// Times as Windows and its archives count them: in ticks of 100 nanoseconds since 1601.

constexpr int64_t kNsPerTick = 100;
constexpr int64_t kTicksPerSecond = 10'000'000;
constexpr int64_t kUnixEpochTicks = 116444736000000000;
