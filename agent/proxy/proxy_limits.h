#pragma once

#include <chrono>
#include <cstddef>

struct ProxyLimits {
  size_t connections = 32;
  /// How long a connection may say nothing while its caller is not busy.
  std::chrono::milliseconds idle = std::chrono::hours(1);
  /// From a message's first byte to its last, either way.
  std::chrono::milliseconds message = std::chrono::seconds(10);
};
