#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "agent/libZel/process_table.h"

// How much of the machine's processors each process uses: its processor time now beside the one in
// an earlier sample.

using SampleTime = std::chrono::steady_clock::time_point;

/// Over less than this the system's steps of processor time (up to 16 ms) would be most of what is
/// measured.
constexpr std::chrono::milliseconds kShortestMeasure{100};

/// The processor times of all processes at one moment.
struct ProcessSample {
  struct Process {
    uint32_t id = 0;
    uint64_t startTime = 0;
    uint64_t cpuMicroseconds = 0;
  };

  /// `entries` ascend by identifier.
  ProcessSample(SampleTime at, const std::vector<process_table::Entry>& entries);

  SampleTime time;
  std::vector<Process> processes;
};

/// The percentage (0 to 100, rounded) of all processors that a process has used between `earlier`
/// and `now`. What started after `earlier` has used all its processor time since.
int32_t LoadSince(const ProcessSample& earlier, const process_table::Entry& entry, SampleTime now,
                  uint32_t processorCount);

/// Processor time as "H:MM:SS", cut to whole seconds; the hours have as many digits as they need.
ZelString CpuTimeText(uint64_t microseconds);

/// The last samples. They are kept at least `kShortestMeasure` apart, so that one of two is old
/// enough to measure from however often the processes are listed.
///
/// Threads: any number at once.
class SampleHistory {
 public:
  /// Keeps a sample, unless it is hardly younger than the newest one.
  void Add(std::shared_ptr<const ProcessSample> sample);

  /// What to measure from at `now`: the newest sample that is old enough, or the only one; null
  /// when there is none. There is no oldest age: the load is then the average since that sample.
  std::shared_ptr<const ProcessSample> Earlier(SampleTime now) const;

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const ProcessSample> newest_;
  std::shared_ptr<const ProcessSample> previous_;
};
