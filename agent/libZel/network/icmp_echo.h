#pragma once

#include <chrono>
#include <string>

#include "agent/libZel/network/name_lookup.h"
#include "libZel/string.h"

enum class EchoAnswer {
  kCame,
  kNone,     ///< within the limit
  kFailed,   ///< the request could not be sent, or is said to get nowhere; the log has the reason
  kRefused,  ///< the system lets this process send no echo requests; the reason is in the log
};

/// Sends one ICMP echo request to `address` and waits for its answer, up to `limit`. Throws nothing
/// but std::bad_alloc.
EchoAnswer SendEcho(const HostAddress& address, std::chrono::milliseconds limit);

/// What sends echo requests.
using EchoSender = EchoAnswer (*)(const HostAddress& address, std::chrono::milliseconds limit);

/// `PingICMP` for addresses that are known: asks the first four in turn until one answers. Each
/// gets an equal share of what is left of `limit`. When none answers, the log names `host` and the
/// addresses that were waited for in vain, if any: for the others it has a reason already. Throws
/// nothing but std::bad_alloc.
bool PingAny(const ZelString& host, const std::vector<HostAddress>& addresses,
             std::chrono::milliseconds limit, EchoSender send);
