#include "actions/programs/process_list.h"

#include <vector>

namespace {

constexpr const char* kOwner = "ProcessOwner";
constexpr const char* kName = "ProcessName";
constexpr const char* kPath = "ProcessPath";
constexpr const char* kTotalCpu = "ProcessTotalCpu";
constexpr const char* kCurrentCpu = "ProcessCurrentCpu";
constexpr const char* kId = "ProcessID";
constexpr const char* kMemoryVirtual = "ProcessMemoryVirtual";
constexpr const char* kMemoryUsed = "ProcessMemoryUsed";
constexpr const char* kParentId = "ProcessParentID";
constexpr const char* kThreadsCount = "ProcessThreadsCount";

ZelString IdText(uint32_t id) {
  ZelString text;
  return text.Printf("%u", id);
}

/// Cut to 32 bits, which the column has.
int32_t InKib(uint64_t sizeBytes) {
  return static_cast<int32_t>(static_cast<uint32_t>(sizeBytes / 1024));
}

ZelContainer Row(const ProcessInfo& process) {
  ZelContainer row;
  row.SetString(kOwner, process.owner, kNoIndex);
  row.SetString(kName, process.name, kNoIndex);
  row.SetString(kPath, process.path, kNoIndex);
  row.SetString(kTotalCpu, process.totalCpu, kNoIndex);
  row.SetInt32(kCurrentCpu, process.currentCpu, kNoIndex);
  row.SetString(kId, IdText(process.id), kNoIndex);
  row.SetInt32(kMemoryVirtual, InKib(process.virtualBytes), kNoIndex);
  row.SetInt32(kMemoryUsed, InKib(process.usedBytes), kNoIndex);
  row.SetString(kParentId, IdText(process.parentId), kNoIndex);
  row.SetInt32(kThreadsCount, static_cast<int32_t>(process.threadCount), kNoIndex);
  return row;
}

}  // namespace

ResultCode CoreUtilsListProcess(ZelContainer* params) {
  ProcessAccess access(ProcessAccess::PROC_ACCESS_ALL_AVAILABLE_AND_COMPUTE_CPU);
  access.Refresh();
  std::vector<ProcessInfo> processes;
  access.GetProcessList(processes);

  uint32_t index = 0;
  for (const ProcessInfo& process : processes) params->SetContainer(kValues, Row(process), index++);
  return kSuccess;
}

ResultCode CoreUtilsInfosProcessAvailable(ZelContainer* params) {
  for (const char* column :
       {kOwner, kName, kPath, kTotalCpu, kCurrentCpu, kId, kMemoryVirtual, kMemoryUsed}) {
    params->SetBool(column, true, kNoIndex);
  }

  // The NT 4 family tells neither.
  const bool tellsAll = OSVersion::GetMajorVersion() != OSVersion::MAJOR_MICROSOFT_WINDOWS_NT;
  params->SetBool(kParentId, tellsAll, kNoIndex);
  params->SetBool(kThreadsCount, tellsAll, kNoIndex);
  return kSuccess;
}

ResultCode CoreUtilsTerminateProcess(ZelContainer* params) {
  ProcessAccess access;
  bool allEnded = true;
  const int count = params->CountValues(kId);
  for (int i = 0; i < count; ++i) {
    ZelString id;
    params->GetString(kId, &id, static_cast<uint32_t>(i));
    // Base 0: decimal, hexadecimal after 0x, octal after 0.
    if (!access.TerminateProcessByID(id.ToUL(0))) allEnded = false;
  }
  return allEnded ? kSuccess : kFailure;
}
