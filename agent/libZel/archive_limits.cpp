#include "agent/libZel/archive_limits.h"

#include <mutex>

namespace {

std::mutex mutex;
ArchiveLimits current;

}  // namespace

void SetArchiveLimits(const ArchiveLimits& limits) {
  const std::lock_guard lock(mutex);
  current = limits;
}

ArchiveLimits GetArchiveLimits() {
  const std::lock_guard lock(mutex);
  return current;
}
