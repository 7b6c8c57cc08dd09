#include "libZel/os_version.h"

// The Windows whose calls the agent offers here.

uint32_t OSVersion::GetMajorVersion() {
  return 10;
}

ZelString OSVersion::GetFullVersion() {
  return "010.000.00000";
}
