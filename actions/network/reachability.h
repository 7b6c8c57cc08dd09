#pragma once

#include "module/action.h"

// Whether something else on the network can be reached from this machine.

/// Pings the host `PingAddr`. Clears the container and sets `Result` (Bool): whether it answered.
/// Always kSuccess.
ResultCode CoreUtilsPingICMP(ZelContainer* params);

/// What `CoreUtilsCheckSMBShare` found, as it stands in `ConnectionResult`.
enum class ShareCheck : int32_t {
  kOpened = 0,
  kNotConnected = 1,      ///< no TCP connection, no NetBIOS session or no dialect in common
  kNotAuthenticated = 2,  ///< the log-in was refused
  kShareRefused = 3,
  kHostUnknown = 4,  ///< neither an address nor a name that the system knows
};

/// Opens the share `SmbPathShare` ("\\host\share" or "host\share") on port 139 as `SmbUser` with
/// `SmbPassword`, and closes it again. Clears the container and sets `TargetHost`, `TargetShare`
/// and `ConnectionResult` (Int32, a ShareCheck). kBadParameter, with an empty container, when the
/// path has another form; kFailure for an unknown host; kSmbStepFailed when a later step failed.
ResultCode CoreUtilsCheckSMBShare(ZelContainer* params);

/// Fetches `HTTPCheckURL` within 30 seconds. Sets `HTTPCheckUrlResult` (Int32): 1 when that
/// succeeded, else 0. The container keeps the URL. Always kSuccess.
ResultCode CoreUtilsCheckHTTPConnection(ZelContainer* params);
