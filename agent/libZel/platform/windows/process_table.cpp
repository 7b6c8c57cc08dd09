#include "agent/libZel/process_table.h"

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>

#include "agent/libZel/native_path.h"
#include "agent/libZel/platform/windows/process_account.h"
#include "agent/libZel/platform/windows/unique_handle.h"

namespace process_table {
namespace {

constexpr DWORD kEndTimeoutMs = 1000;

Outcome LastError() {
  return OutcomeOf(static_cast<int>(GetLastError()));
}

uint64_t TicksOf(const FILETIME& time) {
  return (uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

UniqueHandle OpenIdentifier(DWORD access, uint32_t id) {
  return UniqueHandle(OpenProcess(access, FALSE, id));
}

ZelString PathOf(HANDLE process) {
  // The longest path of the system.
  constexpr DWORD kSize = 32768;
  std::wstring path(kSize, L'\0');
  DWORD length = kSize;
  if (!QueryFullProcessImageNameW(process, 0, path.data(), &length)) return {};
  path.resize(length);
  return FromNativePath(path);
}

// The account that a process runs as, as a security identifier.
std::string AccountOf(HANDLE process) {
  const ProcessAccount account(process);
  if (account.Sid() == nullptr) return {};
  return {static_cast<const char*>(account.Sid()), GetLengthSid(account.Sid())};
}

ZelString NameOfAccount(std::string sid) {
  // Longer than account and domain names may be.
  wchar_t name[512];
  wchar_t domain[512];
  DWORD nameLength = 512;
  DWORD domainLength = 512;
  SID_NAME_USE use;
  if (!LookupAccountSidW(nullptr, sid.data(), name, &nameLength, domain, &domainLength, &use)) {
    return {};
  }
  const ZelString account(std::wstring_view(name, nameLength));
  if (domainLength == 0) return account;
  return ZelString(std::wstring_view(domain, domainLength)) + ZelString("\\") + account;
}

// The names of accounts, for one listing: to look one up may need a domain's server.
class Owners {
 public:
  ZelString NameOf(HANDLE process) {
    const std::string sid = AccountOf(process);
    if (sid.empty()) return {};
    const auto [place, isNew] = names_.try_emplace(sid);
    if (isNew) place->second = NameOfAccount(sid);
    return place->second;
  }

 private:
  std::map<std::string, ZelString> names_;
};

void AddTimes(HANDLE process, Entry* entry) {
  constexpr uint64_t kTicksPerMicrosecond = 10;
  FILETIME created, ended, kernel, user;
  if (!GetProcessTimes(process, &created, &ended, &kernel, &user)) return;
  entry->startTime = TicksOf(created);
  entry->cpuMicroseconds = (TicksOf(kernel) + TicksOf(user)) / kTicksPerMicrosecond;
}

void AddMemory(HANDLE process, Entry* entry) {
  PROCESS_MEMORY_COUNTERS_EX counters{};
  if (!GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                            sizeof counters)) {
    return;
  }
  entry->info.usedBytes = counters.WorkingSetSize;
  // They mean the same, but not every system fills both.
  entry->info.virtualBytes = std::max<uint64_t>(counters.PrivateUsage, counters.PagefileUsage);
}

bool HasEnded(HANDLE process, DWORD timeoutMs) {
  return WaitForSingleObject(process, timeoutMs) == WAIT_OBJECT_0;
}

Entry EntryOf(const PROCESSENTRY32W& listed, Owners* owners) {
  Entry entry;
  entry.info.id = listed.th32ProcessID;
  entry.info.parentId = listed.th32ParentProcessID;
  entry.info.threadCount = listed.cntThreads;
  entry.info.name = ZelString(listed.szExeFile);

  const UniqueHandle process =
      OpenIdentifier(PROCESS_QUERY_LIMITED_INFORMATION, listed.th32ProcessID);
  if (!process) return entry;
  entry.info.path = PathOf(process.Get());
  entry.info.owner = owners->NameOf(process.Get());
  AddTimes(process.Get(), &entry);
  AddMemory(process.Get(), &entry);
  return entry;
}

}  // namespace

Outcome Read(std::vector<Entry>* entries) {
  const UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (!snapshot) return LastError();
  Owners owners;
  PROCESSENTRY32W listed{};
  listed.dwSize = sizeof listed;
  BOOL isListed = Process32FirstW(snapshot.Get(), &listed);
  if (!isListed) return LastError();
  for (; isListed; isListed = Process32NextW(snapshot.Get(), &listed)) {
    entries->push_back(EntryOf(listed, &owners));
  }
  return {};
}

uint32_t ProcessorCount() {
  const DWORD count = GetActiveProcessorCount(ALL_PROCESSOR_GROUPS);
  return count > 0 ? count : 1;
}

uint32_t OwnIdentifier() {
  return GetCurrentProcessId();
}

Outcome End(uint32_t id) {
  constexpr DWORD kAccess = PROCESS_TERMINATE | PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE;
  const UniqueHandle process = OpenIdentifier(kAccess, id);
  if (!process) return LastError();
  // The system passes over the lowest two bits of an identifier: others than asked for, this
  // process itself among them, must not be hit.
  if (GetProcessId(process.Get()) != id) {
    return FailedBecause("no process has this identifier", ERROR_INVALID_PARAMETER);
  }
  // Somebody may still hold its handle.
  if (HasEnded(process.Get(), 0)) return FailedBecause("it has ended already");
  if (!TerminateProcess(process.Get(), 1)) return LastError();
  if (HasEnded(process.Get(), kEndTimeoutMs)) return {};
  return FailedBecause("it was told to end, but has not after a second");
}

}  // namespace process_table
