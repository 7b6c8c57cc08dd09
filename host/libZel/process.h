#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "libZel/string.h"

/// A process. What the system does not tell about it is empty or 0.
struct ProcessInfo {
  uint32_t id = 0;
  uint32_t threadCount = 0;
  uint32_t parentId = 0;
  ZelString path;   ///< the executable
  ZelString name;   ///< the executable's file name; of what has none, the system's name for it
  ZelString owner;  ///< the account; on Windows "DOMAIN\name"
  /// How much of the machine's processors it uses, in percent (0 to 100), rounded.
  int32_t currentCpu = 0;
  ZelString totalCpu;  ///< processor time used so far, "H:MM:SS"
  /// Address space; on Windows the private memory that is committed.
  uint64_t virtualBytes = 0;
  uint64_t usedBytes = 0;  ///< physical memory
};

/// The processes of this machine. Throws nothing.
///
/// Threads: one at a time for an object; objects are independent.
class ProcessAccess {
 public:
  // NOLINTBEGIN(readability-identifier-naming): the library's own names
  static constexpr int PROC_ACCESS_ALL_AVAILABLE = 1;
  static constexpr int PROC_ACCESS_ALL_AVAILABLE_AND_COMPUTE_CPU = 3;
  // NOLINTEND(readability-identifier-naming)

  /// Without processor load.
  ProcessAccess();
  explicit ProcessAccess(int access);
  ~ProcessAccess();
  ProcessAccess(const ProcessAccess&) = delete;
  ProcessAccess& operator=(const ProcessAccess&) = delete;

  /// Chooses what the processor load is measured from, when it was asked for: the last listing with
  /// loads in this whole agent that is at least 100 ms old, however old; the load is the average
  /// since then. Only the agent's first listing has none and makes `GetProcessList` wait for 100
  /// ms. `GetProcessList` does this itself where it was not done.
  void Refresh();

  /// The processes that run now, in the order of their identifiers. Those that end meanwhile or
  /// deny access stay in the list with what is known.
  void GetProcessList(std::vector<ProcessInfo>& list) const;

  /// Ends a process at once and waits for its end, up to a second: 1 when it has ended, else 0; the
  /// reason goes to the library's log. 0, this process itself, identifiers of threads and what the
  /// system lets nobody end (on Linux the kernel's threads and process 1) are refused at once.
  int TerminateProcessByID(uint32_t id);

 private:
  struct Sample;
  int access_;
  std::unique_ptr<Sample> sample_;
};
