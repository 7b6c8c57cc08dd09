#pragma once

#include <windows.h>

#include <string>

#include "agent/proxy_protocol/listener_rule.h"

namespace proxy_protocol {

/// The account of this process, as a SID in text form; empty when it is not known.
std::wstring OwnSid();

/// Who listens at the other end of a pipe. What the system does not tell stays as it is by default.
PipeOwner OwnerOf(HANDLE pipe);

}  // namespace proxy_protocol
