#pragma once

#include <string>

/// The address of this machine that connections to `host` (a name or an address, IPv6 perhaps in
/// brackets) come from; empty when there is no way to it. Asks the name service about a name, for
/// up to ten seconds, and sends nothing to the host.
std::string LocalAddressTowards(const std::string& host);

/// Whether it stands for all addresses of this machine, as "0.0.0.0" does.
bool IsWildcardAddress(const std::string& address);

/// The first address of a network interface that is up, loopback and link-local ones aside: an IPv4
/// one where there is any. Empty without one.
std::string FirstAddress();
