#pragma once

#include <memory>

namespace proxy_protocol {
class StopSignal;
}

// An agent that stops waits neither for people nor for proxies that hang.

/// Ends every wait of this process for an answer of a proxy, or for its time to ask, as if the
/// proxy had been lost, and takes the dialogs down. From now on no proxy can be asked. Any thread.
void EndProxyWaits();

/// Proxies may be asked again: for an agent that starts after another one in the same process.
/// Throws std::system_error.
void AllowProxyWaits();

/// The signal that `EndProxyWaits` raises. Connections that are open keep theirs: they stay ended
/// after `AllowProxyWaits`. Throws std::system_error.
std::shared_ptr<proxy_protocol::StopSignal> ProxyWaitsEnd();

/// Whether the agent is stopping.
bool HaveProxyWaitsEnded();
