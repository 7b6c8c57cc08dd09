#pragma once

#include <cstdint>

/// The highest port there is.
constexpr uint32_t kMaxPort = 65535;
