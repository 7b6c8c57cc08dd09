#pragma once

#include "module/action.h"

// Read and write the content of a text file: UTF-8, or the system code page.
// docs/actions/file-content.md describes parameters, results and codes.

/// 0 with `Result` String, Base64 of UTF-8 text (empty also when the file could not be read);
/// 1 the file is in another text form, or there is no memory; 12; 14001.
ResultCode CoreUtilsReadFile(ZelContainer* params);
/// 0; 1 the file is in another text form, `FileContent` is not Base64, or the file could not be
/// written: then its old content is back; 12.
ResultCode CoreUtilsWriteFile(ZelContainer* params);
