#pragma once

#include "module/action.h"

/// Adds one row under "Values" for each process of the machine.
ResultCode CoreUtilsListProcess(ZelContainer* params);
/// Says which columns of those rows this machine can fill.
ResultCode CoreUtilsInfosProcessAvailable(ZelContainer* params);
/// Ends the processes whose identifiers stand under "ProcessID", as texts.
ResultCode CoreUtilsTerminateProcess(ZelContainer* params);
