#include "libZel/process.h"

struct ProcessAccess::Sample {};

ProcessAccess::ProcessAccess() : ProcessAccess(PROC_ACCESS_ALL_AVAILABLE) {}

ProcessAccess::ProcessAccess(int access) : access_(access) {}

ProcessAccess::~ProcessAccess() = default;

void ProcessAccess::Refresh() {}

void ProcessAccess::GetProcessList(std::vector<ProcessInfo>& list) const {
  if (access_ == 0) return;
  list.clear();
}

int ProcessAccess::TerminateProcessByID(uint32_t) {
  return 0;
}
