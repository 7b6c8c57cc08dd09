#pragma once

#include "module/action.h"

// Helpdesk tasks live in the master's database. Each action tells the master which device asks and
// for what, and hands its answer back; nothing is kept here and nothing is logged. `Result` (Bool)
// is the master's verdict, false too when it could not be invoked. Parameters stay in the container
// beside the results.

/// Opens a task. Reads `_DB_ATTR_NAME_`, `_DB_ATTR_DESCRIPTION_`, `_DB_ATTR_PRIORITY_`,
/// `_DB_ATTR_REQUESTEDBY_`, `Language`, `_DB_ATTR_NOTES_`, `UserEmail`, `UserDomain`, `UserLogin`
/// and `UserPass`, all of them texts. Writes `Result`. Always kSuccess.
ResultCode CoreUtilsCreateTask(ZelContainer* params);

/// Closes task `ObjectId` (Int32; 0 when absent) for `_DB_ATTR_REQUESTEDBY_`. Writes `Result`.
/// Always kSuccess.
ResultCode CoreUtilsCloseTask(ZelContainer* params);

/// Adds the note `_DB_ATTR_NOTES_` of `_DB_ATTR_REQUESTEDBY_` to task `ObjectId` (Int32; 0 when
/// absent). Writes `Result`. Always kSuccess.
ResultCode CoreUtilsTaskAddNote(ZelContainer* params);

/// Lists the tasks that the filters `_DB_ATTR_REQUESTEDBY_`, `_DB_ATTR_STATUS_` and
/// `_DB_ATTR_PRIORITY_` leave; an empty filter leaves all. Writes the rows `Values`, as the master
/// gave them; none when there are none or the master could not be invoked. Always kSuccess.
ResultCode CoreUtilsTaskGetList(ZelContainer* params);

/// Asks whether the master can keep tasks. Writes `Result`, and `ErrorCode` (Int32): what it
/// returns, kSuccess or kMasterNotInvoked.
ResultCode CoreUtilsCheckTask(ZelContainer* params);
