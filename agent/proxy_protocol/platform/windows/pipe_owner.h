#pragma once

#include <windows.h>

#include "agent/proxy_protocol/listener_rule.h"

namespace proxy_protocol {

/// Who listens at the other end of a pipe. What the system does not tell stays as it is by default.
PipeOwner OwnerOf(HANDLE pipe);

}  // namespace proxy_protocol
