#include "agent/libZelCore/listen_options.h"

#include <sys/resource.h>
#include <sys/socket.h>

bool ReserveListenAddress(uintptr_t socket) {
  const int on = 1;
  return ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

void RaiseOpenFileLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}
