#include "windows_api.h"

HANDLE GetCurrentProcess() {
  return nullptr;
}
BOOL OpenProcessToken(HANDLE, DWORD, HANDLE*) {
  return 0;
}
BOOL LookupPrivilegeValueW(const WCHAR*, const WCHAR*, LUID*) {
  return 0;
}
BOOL AdjustTokenPrivileges(HANDLE, BOOL, const TOKEN_PRIVILEGES*, DWORD, TOKEN_PRIVILEGES*,
                           DWORD*) {
  return 0;
}
BOOL ExitWindowsEx(UINT, DWORD) {
  return 0;
}
