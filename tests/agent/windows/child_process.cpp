#include "tests/agent/child_process.h"

#include <windows.h>

#include <system_error>

namespace {

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

// Ends what is in it when the last handle, this process's, is closed.
HANDLE Job() {
  static const HANDLE job = [] {
    const HANDLE made = CreateJobObjectW(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    SetInformationJobObject(made, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    return made;
  }();
  return job;
}

}  // namespace

struct ChildProcess::Implementation {
  PROCESS_INFORMATION info{};
};

ChildProcess::ChildProcess(Task task) : implementation_(std::make_unique<Implementation>()) {
  // Counting so far takes a minute and more.
  wchar_t command[] = L"cmd.exe /c for /L %i in (1,1,100000000) do @rem";
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION& child = implementation_->info;
  if (!CreateProcessW(nullptr, command, nullptr, nullptr, FALSE,
                      CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr, nullptr, &startup, &child)) {
    Fail("start of a child");
  }
  AssignProcessToJobObject(Job(), child.hProcess);
  // One that waits is never let go.
  if (task == Task::kCompute) ResumeThread(child.hThread);
}

ChildProcess::~ChildProcess() {
  const PROCESS_INFORMATION& child = implementation_->info;
  TerminateProcess(child.hProcess, 0);
  WaitForSingleObject(child.hProcess, INFINITE);
  CloseHandle(child.hThread);
  CloseHandle(child.hProcess);
}

uint32_t ChildProcess::Id() const {
  return implementation_->info.dwProcessId;
}

bool ChildProcess::WaitForEnd() {
  constexpr DWORD kTimeoutMs = 10'000;
  PROCESS_INFORMATION& child = implementation_->info;
  return WaitForSingleObject(child.hProcess, kTimeoutMs) == WAIT_OBJECT_0;
}
