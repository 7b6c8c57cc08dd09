#pragma once

#include "libZel/string.h"

/// Whether a host answers an ICMP echo request (RFC 792, RFC 4443). `host` is an address of IPv4 or
/// IPv6, or a name; of a name, up to four addresses are asked in the system's order until one
/// answers. Waits up to 10 seconds for the name's addresses and up to 4 seconds for an answer,
/// which the addresses share. False too when the name is empty or unknown or the system lets this
/// process send no echo requests; the reason goes to the library's log. Throws nothing; any number
/// of threads may call at once.
bool PingICMP(ZelString host);
