#include "agent/libZel/archive_limits.h"

void SetArchiveLimits(const ArchiveLimits&) {}
ArchiveLimits GetArchiveLimits() {
  return {};
}
