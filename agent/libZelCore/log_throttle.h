#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>

/// Lets few lines a second into the log, of the kind that anybody may cause: older lines would make
/// room for them. Those that were kept out are counted.
///
/// Threads: any number may ask at once.
class LogThrottle {
 public:
  using Clock = std::chrono::steady_clock;

  /// Whether a line may go out now. One that may not is counted.
  bool Admit(Clock::time_point now);
  /// How many were kept out in seconds that are over, each told once.
  uint64_t TakeUntold(Clock::time_point now);
  bool HasUntold();

  static constexpr unsigned kMostLines = 10;
  static constexpr std::chrono::seconds kTime{1};

 private:
  std::mutex mutex_;
  Clock::time_point begin_{};  ///< of the second that `lines_` counts
  unsigned lines_ = 0;
  uint64_t untold_ = 0;
};
