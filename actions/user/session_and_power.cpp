#include "actions/user/session_and_power.h"

#include "windows_api.h"

namespace {

/// No reason is given to the system.
constexpr DWORD kNoReason = 0xFFFFFFFF;

bool EnableShutdownPrivilege() {
  // Never closed, by long custom.
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token))
    return false;

  TOKEN_PRIVILEGES privileges{};
  privileges.PrivilegeCount = 1;
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  const ZelString name = "SeShutdownPrivilege";
  if (!LookupPrivilegeValueW(nullptr, name.GetTCHAR(), &privileges.Privileges[0].Luid))
    return false;

  // It also succeeds when the account lacks the privilege: then ending the system fails.
  return AdjustTokenPrivileges(token, 0, &privileges, sizeof privileges, nullptr, nullptr) != 0;
}

UINT ExitKind(const ZelString& howToExit) {
  if (howToExit == "POWEROFF") return EWX_POWEROFF;
  if (howToExit == "REBOOT") return EWX_REBOOT;
  return EWX_LOGOFF;
}

}  // namespace

ResultCode CoreUtilsIsUserLogged(ZelContainer* params) {
  params->Clear();

  const bool isLogged = IsUserLogged();
  params->SetBool("UserLogged", isLogged, kNoIndex);
  if (!isLogged) return kSuccess;

  ZelString pipeName;
  ZelAgentGetProxyPipeName(pipeName);
  params->SetBool("ScreenSaving", ProxyUtils::IsUserAbsent(pipeName), kNoIndex);
  return kSuccess;
}

ResultCode CoreUtilsExitOperatingSystem(ZelContainer* params) {
  const ZelString howToExit = ReadString(*params, "HowToExit");

  if (!EnableShutdownPrivilege()) return kFailure;

  return ExitWindowsEx(ExitKind(howToExit) | EWX_FORCE, kNoReason) ? kSuccess : kFailure;
}

ResultCode CoreUtilsShellExecuteAsLoggedUser(ZelContainer* params) {
  const ZelString command = ReadString(*params, "Command");
  params->Clear();

  ZelAgentGetSysTray().ExecuteAsLoggedUser(command);
  return kSuccess;
}
