#pragma once

#include "module/action.h"

// Messages in front of the logged-on user. What the actions read and answer is described in
// docs/actions/dialogs.md.

/// Shows a message without buttons and returns; it stays until the next one or
/// `CoreUtilsCloseDialog`.
ResultCode CoreUtilsShowDialog(ZelContainer* params);
ResultCode CoreUtilsCloseDialog(ZelContainer* params);
/// Shows a message with up to two buttons and waits for the user.
ResultCode CoreUtilsAdvanceDialog(ZelContainer* params);
