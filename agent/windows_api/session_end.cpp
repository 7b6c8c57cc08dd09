#include <algorithm>
#include <atomic>
#include <chrono>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/platform/posix/system_bus.h"
#include "agent/libZel/user_sessions.h"
#include "libZel/string.h"
#include "windows_api.h"

namespace {

/// Longer than logind takes to answer while it tells everybody of a shutdown to come.
constexpr std::chrono::seconds kLogindTime{25};

constexpr const char* kShutdownPrivilegeName = "SeShutdownPrivilege";
constexpr LUID kShutdownPrivilege{19, 0};

/// Whether this process asked for the privilege. What logind makes of the account is another
/// matter.
std::atomic<bool> isShutdownEnabled = false;

/// The one token that there is: only its address counts.
char processToken = 0;

bool IsAdjustable(const LUID_AND_ATTRIBUTES& privilege) {
  return privilege.Luid.LowPart == kShutdownPrivilege.LowPart &&
         privilege.Luid.HighPart == kShutdownPrivilege.HighPart &&
         (privilege.Attributes & ~SE_PRIVILEGE_ENABLED) == 0;
}

/// What logind asks the person at the machine would hang an agent that nobody sits at, so no call
/// lets it ask anything.
BOOL AskLogind(const char* member, std::initializer_list<BusArgument> arguments) {
  SystemBus bus(kLogindTime);
  const BusReply reply = bus.Call({"org.freedesktop.login1", "/org/freedesktop/login1",
                                   "org.freedesktop.login1.Manager", member},
                                  arguments);
  if (!reply) {
    LibraryLog().ErrorWithNL("systemd-logind does not end the session or the system: %S",
                             ZelString(reply.Error().c_str()));
    return 0;
  }
  LibraryLog().PrintWithNL("systemd-logind was asked for: %s", member);
  return 1;
}

BOOL EndSession() {
  const auto sessions = UserSessions();
  if (sessions && !sessions->empty()) return AskLogind("TerminateSession", {sessions->front().id});
  LibraryLog().ErrorWithNL("nobody can be logged off: nobody is logged on");
  return 0;
}

}  // namespace

HANDLE GetCurrentProcess() {
  // The value that it has on Windows.
  return reinterpret_cast<HANDLE>(intptr_t{-1});
}

BOOL OpenProcessToken(HANDLE process, DWORD, HANDLE* token) {
  if (process != GetCurrentProcess() || token == nullptr) return 0;
  *token = &processToken;
  return 1;
}

BOOL LookupPrivilegeValueW(const WCHAR* systemName, const WCHAR* name, LUID* luid) {
  if (systemName != nullptr || name == nullptr || luid == nullptr) return 0;
  if (ZelString(name) != kShutdownPrivilegeName) return 0;
  *luid = kShutdownPrivilege;
  return 1;
}

BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAll, const TOKEN_PRIVILEGES* newState, DWORD,
                           TOKEN_PRIVILEGES* previous, DWORD* previousLength) {
  if (token != &processToken || disableAll || newState == nullptr) return 0;
  if (previous != nullptr || previousLength != nullptr) return 0;

  const std::span privileges(newState->Privileges, newState->PrivilegeCount);
  if (!std::ranges::all_of(privileges, IsAdjustable)) return 0;
  for (const LUID_AND_ATTRIBUTES& privilege : privileges) {
    isShutdownEnabled = (privilege.Attributes & SE_PRIVILEGE_ENABLED) != 0;
  }
  return 1;
}

BOOL ExitWindowsEx(UINT flags, DWORD) {
  if (!isShutdownEnabled) return 0;
  switch (flags) {
    case EWX_POWEROFF | EWX_FORCE:
      return AskLogind("PowerOff", {false});
    case EWX_REBOOT | EWX_FORCE:
      return AskLogind("Reboot", {false});
    case EWX_LOGOFF | EWX_FORCE:
      return EndSession();
    default:
      return 0;
  }
}
