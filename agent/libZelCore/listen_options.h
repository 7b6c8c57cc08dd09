#pragma once

#include <cstdint>

// What a listening socket needs of the platform.

/// Lets an address be bound again at once after a restart, and by nobody else while it is in use.
/// False when the system refuses.
bool ReserveListenAddress(uintptr_t socket);

/// Lets this process open as many files and connections as the system allows it; how many, the
/// largest number where there is no limit.
uint64_t RaiseOpenFileLimit();
