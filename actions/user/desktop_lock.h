#pragma once

#include "module/action.h"

// The desktop lock: several administrators and scripts may lock, and the last unlock releases the
// screen. Each action answers with its result code alone. What they read and when they fail is
// described in docs/actions/desktop-lock.md.

ResultCode CoreUtilsLockDesktop(ZelContainer* params);
ResultCode CoreUtilsSetLockMessageText(ZelContainer* params);
ResultCode CoreUtilsUnlockDesktop(ZelContainer* params);
/// Sends the lock and its message to the proxy once more.
ResultCode CoreUtilsRestoreDesktopLockState(ZelContainer* params);
