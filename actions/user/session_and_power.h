#pragma once

#include "module/action.h"

// The session of the logged-on user and the machine's power. What the actions read and answer is
// described in docs/actions/session-and-power.md.

ResultCode CoreUtilsIsUserLogged(ZelContainer* params);
/// Powers off, reboots or logs the user off. The process's token stays open.
ResultCode CoreUtilsExitOperatingSystem(ZelContainer* params);
ResultCode CoreUtilsShellExecuteAsLoggedUser(ZelContainer* params);
