#include "windows_api.h"

BOOL SystemTimeToFileTime(const SYSTEMTIME*, FILETIME*) {
  return 0;
}
