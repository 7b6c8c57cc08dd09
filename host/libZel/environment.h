#pragma once

#include "libZel/format_argument.h"

/// Sets a variable of this process's environment; programs started later inherit it. Both texts are
/// terminated UTF-16. Environment access is not synchronised with readers in other threads: call it
/// before there are any.
void SetEnvVariable(const TCHAR* name, const TCHAR* value);
