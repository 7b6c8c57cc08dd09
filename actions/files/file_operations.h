#pragma once

#include "module/action.h"

// Copy, rename and delete a file, tell its size; create, rename and delete a directory.
// docs/actions/file-operations.md describes parameters, results and codes.
//
// Where a path is named that the privacy policy must allow, the policy is asked on behalf of the
// console user in `DACurrentConsoleUser`; the operation itself runs with the agent's own rights.

/// 0; 1 the copy failed; 12; 14001. A file copied onto itself gets a free name beside the source.
ResultCode CoreUtilsCopyFile(ZelContainer* params);
/// 0; 1 the file could not be moved; 12; 14001.
ResultCode CoreUtilsRenameFile(ZelContainer* params);
/// 0; 1 the file could not be deleted; 12; 14001.
ResultCode CoreUtilsDeleteFile(ZelContainer* params);
/// 0 with `Result` Int32, the size modulo 2^32 as a signed number; 12; 14001.
ResultCode CoreUtilsGetFileSize(ZelContainer* params);
/// 0 when it was created or existed already; 1 it could not be created; 12.
ResultCode CoreUtilsDirCreate(ZelContainer* params);
/// 0; 1 the directory could not be renamed; 12.
ResultCode CoreUtilsDirRename(ZelContainer* params);
/// 0 whether or not the directory could be deleted; 12.
ResultCode CoreUtilsDirDelete(ZelContainer* params);
