#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "agent/libZel/platform/posix/unique_fd.h"

/// Remembers the mode of new files and the limit of open files that this process has now, for the
/// programs that it starts: it changes its own. Before there are threads. Programs inherit both
/// where this was never called.
void KeepStateForPrograms();

/// What a child of this process does to become a program. It may neither allocate memory nor take
/// locks, so all that it needs is made beforehand. Returns only when the program does not run, with
/// the reason in errno.
class ProgramToBe {
 public:
  virtual ~ProgramToBe() = default;
  virtual void Run() const = 0;
};

struct ForkedProgram {
  /// 0 without a child.
  pid_t process = 0;
  /// Why there is no child, an error number.
  int error = 0;
  /// Closed by the program as it starts. Else the child writes an error number into it and ends.
  UniqueFd failure;
};

/// Forks. The child has a session of its own, signals as programs expect them, empty streams,
/// nothing else open, and what `KeepStateForPrograms` has kept; then `program` runs in it.
ForkedProgram ForkProgram(const ProgramToBe& program);

/// Waits until the program runs or cannot: 0 or the child's error number.
int ReadFailure(const UniqueFd& failure);

/// The texts as execve takes them; valid as long as these are.
std::vector<char*> PointersTo(std::vector<std::string>& texts);
