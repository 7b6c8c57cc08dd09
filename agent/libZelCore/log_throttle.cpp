#include "agent/libZelCore/log_throttle.h"

#include <utility>

bool LogThrottle::Admit(Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  if (now - begin_ >= kTime) {
    begin_ = now;
    lines_ = 0;
  }
  if (lines_ < kMostLines) {
    ++lines_;
    return true;
  }
  ++untold_;
  return false;
}

uint64_t LogThrottle::TakeUntold(Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  if (now - begin_ < kTime) return 0;
  return std::exchange(untold_, 0);
}

bool LogThrottle::HasUntold() {
  const std::lock_guard lock(mutex_);
  return untold_ > 0;
}
