#include "agent/libZelCore/listen_options.h"

#include <winsock2.h>

#include <limits>

bool ReserveListenAddress(uintptr_t socket) {
  // SO_REUSEADDR would let another program take the address over.
  const BOOL on = TRUE;
  return setsockopt(static_cast<SOCKET>(socket), SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
                    reinterpret_cast<const char*>(&on), sizeof on) == 0;
}

uint64_t RaiseOpenFileLimit() {
  return std::numeric_limits<uint64_t>::max();  // sockets are not counted against a limit
}
