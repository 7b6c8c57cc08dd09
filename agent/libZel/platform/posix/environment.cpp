#include "libZel/environment.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent/libZel/boundary.h"
#include "agent/libZel/platform/posix/byte_names.h"

namespace {

// A value need not be a file name: what no byte stands for is passed on as it is.
std::string BytesForEnvironment(const ZelString& text) {
  return BytesOf(text.Utf8()).value_or(std::string(text.Utf8()));
}

}  // namespace

void SetEnvVariable(const TCHAR* name, const TCHAR* value) {
  Guarded("SetEnvVariable", false, [&] {
    const ZelString nameText(name);
    const std::string nameBytes = BytesForEnvironment(nameText);
    const std::string valueBytes = BytesForEnvironment(ZelString(value));
    if (setenv(nameBytes.c_str(), valueBytes.c_str(), 1) == 0) return true;
    LibraryLog().WarningWithNL("environment variable \"%S\" could not be set: %s", nameText,
                               std::strerror(errno));
    return false;
  });
}
