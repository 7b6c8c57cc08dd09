#pragma once

#include "module/action.h"

/// Compiles the script "Name" (a full path, or one below the module's data directory) and, unless
/// "CompileOnly" is set, runs its procedure "main", which finds a copy of the container "Params" in
/// its variable "ParamsContainer". Writes "ErrorText" and "ErrorLine" when the script does not
/// compile or fails, and nothing else.
ResultCode CoreUtilsRunScript(ZelContainer* params);
