#pragma once

// The calls of the Windows API that modules make: the system's own on Windows; elsewhere equal
// declarations, implemented in agent/windows_api. The contract of each is Microsoft's description
// of it; what a platform without Windows makes of it is said here.
//
// Socket addresses and byte order (sockaddr_in, AF_INET, htons, htonl) have the same names in every
// system's own header.

#ifdef _WIN32

#include <winsock2.h>

// The sockets come before the windows header, which would bring older ones; the others need its
// types.
#include <windows.h>

#include <lmcons.h>

#include <lmapibuf.h>
#include <lmserver.h>
#include <winver.h>

#else

#include <netinet/in.h>

#include <cstdint>

#include "libZel/string.h"

using BOOL = int;
using UINT = unsigned;
using DWORD = uint32_t;
using WORD = uint16_t;
using WCHAR = TCHAR;
using HMODULE = void*;
using FARPROC = void (*)();
using LONG = int32_t;
using HANDLE = void*;
using NET_API_STATUS = DWORD;

// NOLINTBEGIN(readability-identifier-naming): the system's own names
struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};
/// 100-nanosecond steps since 1601-01-01 00:00 UTC.
struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};
/// A privilege, as the system numbers it until its next start.
struct LUID {
  DWORD LowPart;
  LONG HighPart;
};
struct LUID_AND_ATTRIBUTES {
  LUID Luid;
  DWORD Attributes;
};
struct TOKEN_PRIVILEGES {
  DWORD PrivilegeCount;
  LUID_AND_ATTRIBUTES Privileges[1];
};
/// A computer or domain, as `NetServerEnum` lists it.
struct SERVER_INFO_100 {
  DWORD sv100_platform_id;
  WCHAR* sv100_name;
};

constexpr UINT CP_ACP = 0;
constexpr UINT CP_UTF8 = 65001;

constexpr UINT DRIVE_UNKNOWN = 0;
constexpr UINT DRIVE_NO_ROOT_DIR = 1;
constexpr UINT DRIVE_REMOVABLE = 2;
constexpr UINT DRIVE_FIXED = 3;
constexpr UINT DRIVE_REMOTE = 4;
constexpr UINT DRIVE_CDROM = 5;
constexpr UINT DRIVE_RAMDISK = 6;

/// Rights on a token.
constexpr DWORD TOKEN_QUERY = 0x0008;
constexpr DWORD TOKEN_ADJUST_PRIVILEGES = 0x0020;
constexpr DWORD SE_PRIVILEGE_ENABLED = 0x00000002;

/// How to end the system, for `ExitWindowsEx`.
constexpr UINT EWX_LOGOFF = 0x00000000;
constexpr UINT EWX_REBOOT = 0x00000002;
constexpr UINT EWX_FORCE = 0x00000004;
constexpr UINT EWX_POWEROFF = 0x00000008;

/// As many bytes as it takes.
constexpr DWORD MAX_PREFERRED_LENGTH = ~0U;
/// What to list, for `NetServerEnum`.
constexpr DWORD SV_TYPE_ALL = 0xFFFFFFFF;
constexpr DWORD SV_TYPE_DOMAIN_ENUM = 0x80000000;
// NOLINTEND(readability-identifier-naming)

extern "C" {

/// What kind of drive holds the directory that the letter of `root` ("C:\") stands for in the
/// agent's drive map. `DRIVE_NO_ROOT_DIR` when the letter stands for no directory.
UINT GetDriveTypeW(const WCHAR* root);

/// The label and the file system's name of the drive `root` ("C:\"), each cut to its buffer.
/// Sizes are characters, the terminator included; buffers may be null. The serial number, component
/// length and flags are not told: their pointers must be null. 0 when there is no such drive.
BOOL GetVolumeInformationW(const WCHAR* root, WCHAR* label, DWORD labelSize, DWORD* serialNumber,
                           DWORD* componentLength, DWORD* flags, WCHAR* fileSystem,
                           DWORD fileSystemSize);

/// Converts `byteCount` bytes (-1: up to and with the terminator) of `codePage` to UTF-16. Returns
/// the number of characters written, or needed when `wideSize` is 0; 0 on failure: no bytes, an
/// unknown code page, a buffer too small. `CP_ACP` is the code page of the agent's configuration.
/// With `flags` 0, bytes that mean nothing become U+FFFD, in code pages other than UTF-8 the bytes
/// 0x80 to 0x9F become the control characters U+0080 to U+009F.
int MultiByteToWideChar(UINT codePage, DWORD flags, const char* bytes, int byteCount, WCHAR* wide,
                        int wideSize);

/// The other way. Characters that the code page lacks become `*defaultChar` ("?" when null);
/// `*usedDefault`, unless null, tells whether there were any. U+0080 to U+009F become their bytes
/// where the code page has no other use for them.
int WideCharToMultiByte(UINT codePage, DWORD flags, const WCHAR* wide, int wideCount, char* bytes,
                        int byteSize, const char* defaultChar, BOOL* usedDefault);

/// The size in bytes of the version resource of the program or library `path`; 0 when it has none
/// or is no Portable Executable. `*handle`, unless null, is set to 0.
DWORD GetFileVersionInfoSizeW(const WCHAR* path, DWORD* handle);

/// Reads the version resource into `data`, up to `size` bytes. 0 when there is none.
BOOL GetFileVersionInfoW(const WCHAR* path, DWORD handle, DWORD size, void* data);

/// Finds a value in a version resource: "\" for the fixed part, "\VarFileInfo\Translation", or
/// "\StringFileInfo\040904b0\FileVersion" (any case). `*value` points into `data`. `*length` is in
/// characters with the terminator for texts, in bytes for the others. 0 when there is none.
BOOL VerQueryValueW(const void* data, const WCHAR* path, void** value, UINT* length);

/// The function that a loaded library exports under `name`; null when there is none.
FARPROC GetProcAddress(HMODULE library, const char* name);

/// Converts a date of the Gregorian calendar and a time of day, both UTC; the day of the week is
/// not looked at. 0, with `*fileTime` as it was, for a year before 1601 or after 30827 or anything
/// that the calendar or the clock does not have.
BOOL SystemTimeToFileTime(const SYSTEMTIME* systemTime, FILETIME* fileTime);

/// A handle that stands for this process; nothing to close.
HANDLE GetCurrentProcess();

/// The access token of `process`, which must be this one. Tokens carry nothing here: `*token` is
/// never closed and costs nothing. 0 for another process or a null pointer.
BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE* token);

/// The number of the privilege `name` of the system `systemName`, which must be null. There is one,
/// "SeShutdownPrivilege": the right to end sessions and the system. 0 for any other.
BOOL LookupPrivilegeValueW(const WCHAR* systemName, const WCHAR* name, LUID* luid);

/// Enables privileges for this process. Whether it has them shows when they are used. `previous`
/// and `previousLength` must be null, `disableAll` 0. 0 for a token that is none and for privileges
/// that there are not.
BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAll, const TOKEN_PRIVILEGES* newState,
                           DWORD bufferLength, TOKEN_PRIVILEGES* previous, DWORD* previousLength);

/// Ends the session of the person at this machine (`EWX_LOGOFF`), or restarts or powers off the
/// machine, by way of systemd-logind; running programs are not asked. `EWX_FORCE` must be among the
/// flags; `reason` is not looked at. Waits up to 27 seconds for logind. 0 for other flags and when
/// the privilege was not enabled; and with the reason in the log without logind or anybody logged
/// on (for a log-off), and when logind refuses: the agent's account needs the right to do so.
BOOL ExitWindowsEx(UINT flags, DWORD reason);

/// Lists the domains and workgroups of the network (`SV_TYPE_DOMAIN_ENUM`, `domain` null) or the
/// computers of one of them (`SV_TYPE_ALL`; `domain` null for the machine's own, which smb.conf
/// names), as the network's browsers know them. `*buffer` becomes an array of `*entriesRead`
/// SERVER_INFO_100, in the browser's order, for `NetApiBufferFree`; `*totalEntries` their number
/// too, which is 1 to 8192. `server` and `resume` must be null, `level` 100, `preferredBytes`
/// `MAX_PREFERRED_LENGTH`. Waits up to 30 seconds; calls of several threads do not wait for each
/// other. Returns 0; otherwise nothing is stored, and the reason is in the log:
/// ERROR_INVALID_PARAMETER (87) for other arguments, ERROR_NO_SUCH_DOMAIN (1355) when nobody knows
/// the domain or nothing can have its name, which has no more than 15 characters and no dot,
/// ERROR_NO_BROWSER_SERVERS_FOUND (6118) without a browser that answers, and without libsmbclient,
/// ERROR_MORE_DATA (234) when there are more than 8192, ERROR_NOT_ENOUGH_MEMORY (8).
NET_API_STATUS NetServerEnum(const WCHAR* server, DWORD level, uint8_t** buffer,
                             DWORD preferredBytes, DWORD* entriesRead, DWORD* totalEntries,
                             DWORD serverType, const WCHAR* domain, DWORD* resume);

/// Frees what `NetServerEnum` stored; null is fine. Returns 0.
NET_API_STATUS NetApiBufferFree(void* buffer);

}  // extern "C"

#endif
