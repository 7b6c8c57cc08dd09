#include "libZel/environment.h"

#include <windows.h>

#include <cstdlib>

#include "agent/libZel/boundary.h"

void SetEnvVariable(const TCHAR* name, const TCHAR* value) {
  Guarded("SetEnvVariable", false, [&] {
    if (name != nullptr && value != nullptr && SetEnvironmentVariableW(name, value) != 0) {
      // The C library keeps a copy of its own, which getenv reads.
      _wputenv_s(name, value);
      return true;
    }
    LibraryLog().WarningWithNL("environment variable \"%S\" could not be set", ZelString(name));
    return false;
  });
}
