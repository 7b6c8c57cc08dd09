#include "libZel/os_version.h"

#include <windows.h>

namespace {

/// The version as the system knows it itself: what `GetVersionEx` tells depends on the program's
/// manifest.
OSVERSIONINFOW Version() {
  using RtlGetVersion = LONG(WINAPI*)(OSVERSIONINFOW*);
  OSVERSIONINFOW version{};
  version.dwOSVersionInfoSize = sizeof version;
  const HMODULE library = GetModuleHandleW(L"ntdll.dll");
  const auto getVersion = reinterpret_cast<RtlGetVersion>(
      reinterpret_cast<void*>(GetProcAddress(library, "RtlGetVersion")));
  if (getVersion) getVersion(&version);
  return version;
}

}  // namespace

uint32_t OSVersion::GetMajorVersion() {
  return Version().dwMajorVersion;
}

ZelString OSVersion::GetFullVersion() {
  const OSVERSIONINFOW version = Version();
  ZelString text;
  return text.Printf("%03u.%03u.%05u", version.dwMajorVersion, version.dwMinorVersion,
                     version.dwBuildNumber);
}
