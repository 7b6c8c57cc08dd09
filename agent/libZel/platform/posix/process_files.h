#pragma once

#include <cstdint>
#include <string_view>

#include "agent/libZel/outcome.h"

// What the files below /proc hold, read from any bytes: what is missing or odd is empty or 0.

/// The line of /proc/ID/stat.
struct ProcessStat {
  /// The name that the kernel keeps, cut to 15 bytes for programs. It may hold blanks and
  /// parentheses.
  std::string_view command;
  uint32_t parentId = 0;
  /// Of the kernel itself: nothing ends it.
  bool isKernelThread = false;
  uint32_t threadCount = 0;
  /// In user and kernel mode, in ticks of the clock.
  uint64_t cpuTicks = 0;
  /// Since the system's start, in ticks of the clock.
  uint64_t startTicks = 0;
  /// Kernel threads and what has ended have none.
  uint64_t virtualBytes = 0;
  uint64_t residentPages = 0;
};
ProcessStat ParseProcessStat(std::string_view line);

/// The executable that the link /proc/ID/exe names, without the kernel's remark that the file has
/// been deleted.
std::string_view ExecutableOf(std::string_view link);

/// The process that a thread belongs to (a process itself is its own), from /proc/ID/status; 0 when
/// it does not tell.
uint32_t ThreadGroupOf(std::string_view status);

namespace process_table {

/// `End` for kernels that give no handles of processes: between the look whether `id` is a process
/// and its end another one could take the identifier over. Does not wait. `id` is none of those
/// that `End` refuses at once.
Outcome EndWithoutHandle(uint32_t id);

}  // namespace process_table
