#pragma once

#include "module/action.h"

// List a directory, sorted and in pages. docs/actions/directory-listing.md describes parameters,
// results and codes.

/// 0 with `Values`, and with `Total` when `Count` was given; 1 the directory could not be opened;
/// 12.
ResultCode CoreUtilsGetDirList(ZelContainer* params);
