#include "agent/libZel/absence_limit.h"

#include <atomic>

namespace {

using std::chrono::milliseconds;

std::atomic<milliseconds::rep> limitMs = milliseconds(std::chrono::minutes(10)).count();

}  // namespace

void SetAbsenceLimit(milliseconds limit) {
  limitMs = limit.count();
}

milliseconds GetAbsenceLimit() {
  return milliseconds(limitMs);
}
