#pragma once

#include "module/action.h"

// The consent of the person at the machine to a Direct Access connection. What the actions read and
// answer is described in docs/actions/connection-acknowledgement.md.

/// Asks the user and waits for the answer, however long that takes.
ResultCode CoreUtilsCheckClientAccept(ZelContainer* params);
/// Withdraws the question that is being asked.
ResultCode CoreUtilsDestroyAckPopup(ZelContainer* params);
