#pragma once

#include "module/action.h"

// The machine's drives, and the digest of a file. docs/actions/volumes-and-digest.md describes
// parameters, results and codes. Neither action clears the container or asks the privacy policy.

/// 0 with one row in `Values` for each drive from C: to Z: that is there.
ResultCode CoreUtilsGetFileSystems(ZelContainer* params);
/// 0 with `FileChecksum` String, empty when the file cannot be read.
ResultCode CoreUtilsFileMD5(ZelContainer* params);
