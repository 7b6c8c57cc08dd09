#pragma once

#include "module/action.h"

/// Wakes a computer of this machine's network: sends one magic packet to port 7 of its subnet's
/// broadcast address. Reads `IpAddress` and `NetworkMask` (Int32, in host byte order: 192.168.1.20
/// is 0xC0A80114) and `MacAddress` (12 hexadecimal digits without separators). Writes nothing and
/// leaves the container as it is. kBadParameter when one of them is absent; else kSuccess, also
/// when nothing could be sent, which only the log tells.
ResultCode CoreUtilsWakeUp(ZelContainer* params);
