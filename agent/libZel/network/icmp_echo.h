#pragma once

#include <chrono>

#include "agent/libZel/network/name_lookup.h"

enum class EchoAnswer {
  kCame,
  kNone,     ///< within the limit
  kRefused,  ///< the system lets this process send no echo requests; the reason is in the log
};

/// Sends one ICMP echo request to `address` and waits for its answer, up to `limit`. Throws nothing
/// but std::bad_alloc.
EchoAnswer SendEcho(const HostAddress& address, std::chrono::milliseconds limit);
