#pragma once

#include "module/action.h"

// What a file is: version resource, digest, size, application. docs/actions/file-information.md
// describes parameters, results and codes.

/// 0; 12; 14001 with `Result` Int32 0.
ResultCode CoreUtilsGetFileInformation(ZelContainer* params);
