#pragma once

#include <cstdint>
#include <vector>

#include "agent/libZel/outcome.h"
#include "libZel/process.h"

// The system's processes, as the platform tells them.
namespace process_table {

struct Entry {
  /// Without `currentCpu` and `totalCpu`.
  ProcessInfo info;
  /// With the identifier it tells a process from all others since the system's start. The unit is
  /// the platform's.
  uint64_t startTime = 0;
  /// Processor time used so far, of all threads, in microseconds.
  uint64_t cpuMicroseconds = 0;
};

/// Appends the processes that run now, in any order. Those that end meanwhile or deny access stay
/// with what is known, if only their identifier. Fails when the system lists none.
Outcome Read(std::vector<Entry>* entries);

/// The processors that the system uses now; at least 1.
uint32_t ProcessorCount();

/// Of this process.
uint32_t OwnIdentifier();

/// Ends a process at once and waits until it has ended, up to a second. Fails, without waiting, for
/// identifiers of threads, for those that no process has, and for what the system lets nobody end.
Outcome End(uint32_t id);

}  // namespace process_table
