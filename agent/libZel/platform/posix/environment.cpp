#include "libZel/environment.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent/libZel/boundary.h"
#include "agent/libZel/platform/posix/byte_names.h"

void SetEnvVariable(const TCHAR* name, const TCHAR* value) {
  Guarded("SetEnvVariable", false, [&] {
    const ZelString nameText(name);
    // What no byte stands for is passed on in its WTF-8 form: a value is not a file name.
    const std::string nameBytes(BytesOf(nameText.Utf8()).value_or(std::string(nameText.Utf8())));
    const ZelString valueText(value);
    const std::string valueBytes(BytesOf(valueText.Utf8()).value_or(std::string(valueText.Utf8())));
    if (setenv(nameBytes.c_str(), valueBytes.c_str(), 1) == 0) return true;
    LibraryLog().WarningWithNL("environment variable \"%S\" could not be set: %s", nameText,
                               std::strerror(errno));
    return false;
  });
}
