#include "agent/libZelCore/listen_options.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include <limits>

bool ReserveListenAddress(uintptr_t socket) {
  const int on = 1;
  return ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

uint64_t RaiseOpenFileLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return std::numeric_limits<uint64_t>::max();
  rlimit raised{limit.rlim_max, limit.rlim_max};
  return ::setrlimit(RLIMIT_NOFILE, &raised) == 0 ? raised.rlim_cur : limit.rlim_cur;
}
