#pragma once

#include <memory>

#include "agent/proxy/caller.h"
#include "agent/proxy/proxy_limits.h"
#include "agent/proxy_protocol/channel.h"

/// Serves one connection until it ends: reads its requests, hands them to a caller and sends the
/// replies in the order in which they come. Returns when what the connection owned is released and
/// the last reply was sent. Throws only for want of memory or threads.
void ServeConnection(proxy_protocol::Channel& channel, const CallerFactory& makeCaller,
                     const ProxyLimits& limits);

/// Says why a connection ends, before anything else was said, without waiting for the other end.
void TurnAway(proxy_protocol::Channel& channel, const std::string& why);
