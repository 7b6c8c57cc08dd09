// The calls of the Windows API. On Windows nothing stands in for them: the tests that script them
// run where they are the agent's own.

#include <algorithm>
#include <cstring>

#include "tests/fake_host/ask.h"
#include "tests/fake_host/transcript.h"
#include "windows_api.h"

namespace {

/// Whether an optional argument was passed.
const char* Presence(const void* pointer) {
  return pointer ? "given" : "null";
}

std::string Number(int64_t value) {
  return std::to_string(value);
}

std::string QuoteWide(const WCHAR* wide, int count) {
  if (!wide) return "null";
  const std::basic_string_view<WCHAR> text(wide, static_cast<size_t>(count));
  return Quote(ZelString(text));
}

std::string QuoteTerminated(const WCHAR* wide) {
  return wide ? Quote(ZelString(wide)) : "null";
}

/// What `NetServerEnum` stored: records, and the names that they point to behind them.
struct ServerBuffer {
  uint8_t* bytes = nullptr;
  WCHAR* names = nullptr;
  WCHAR* namesEnd = nullptr;
};

/// Not freed so far.
ServerBuffer handedOut;

ServerBuffer MakeServerBuffer(const std::vector<ZelString>& list) {
  constexpr DWORD kPlatformId = 500;
  const size_t recordBytes = list.size() * sizeof(SERVER_INFO_100);
  size_t nameBytes = 0;
  for (const ZelString& name : list) nameBytes += name.GetSize(kEncodingUtf16) + sizeof(WCHAR);

  // Of eight bytes at least, so that it is a buffer without records, too.
  std::string content(std::max<size_t>(recordBytes + nameBytes, 8), '\0');
  auto* bytes = const_cast<char*>(Host().Keep(std::move(content)).data());
  auto* names = reinterpret_cast<WCHAR*>(bytes + recordBytes);
  WCHAR* next = names;
  for (size_t i = 0; i < list.size(); ++i) {
    const SERVER_INFO_100 record{kPlatformId, next};
    std::memcpy(bytes + i * sizeof(record), &record, sizeof(record));
    const size_t size = list[i].GetSize(kEncodingUtf16);
    std::memcpy(next, list[i].GetTCHAR(), size);
    next += size / sizeof(WCHAR) + 1;
  }
  return {reinterpret_cast<uint8_t*>(bytes), names, next};
}

/// Copies a text with its terminator, cut to `size` characters.
void Fill(WCHAR* buffer, DWORD size, const ZelString& text) {
  if (!buffer || size == 0) return;
  const size_t count = std::min<size_t>(text.GetSize(kEncodingUtf16) / 2, size - 1);
  std::memcpy(buffer, text.GetTCHAR(), count * sizeof(WCHAR));
  buffer[count] = 0;
}

/// Copies what was scripted, complaining when it does not fit.
bool FillBytes(const char* function, void* buffer, size_t size, const std::string& bytes) {
  if (bytes.size() > size) {
    Host().Complain(std::string("more bytes are scripted than fit for ") + function);
    return false;
  }
  if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
  return true;
}

}  // namespace

UINT GetDriveTypeW(const WCHAR* root) {
  return static_cast<UINT>(Ask("GetDriveTypeW", Quote(ZelString(root))));
}

BOOL GetVolumeInformationW(const WCHAR* root, WCHAR* label, DWORD labelSize, DWORD* serialNumber,
                           DWORD* componentLength, DWORD* flags, WCHAR* fileSystem,
                           DWORD fileSystemSize) {
  const std::string arguments = List(Quote(ZelString(root)), Presence(label), Number(labelSize),
                                     Presence(serialNumber), Presence(componentLength),
                                     Presence(flags), Presence(fileSystem), Number(fileSystemSize));
  const FakeHost::ScriptedAnswer answer = Host().Ask("GetVolumeInformationW", arguments);
  if (!answer.hasBytes) return static_cast<BOOL>(answer.value);
  Fill(label, labelSize, answer.bytes);
  Fill(fileSystem, fileSystemSize, "NTFS");
  return static_cast<BOOL>(answer.value);
}

int MultiByteToWideChar(UINT codePage, DWORD flags, const char* bytes, int byteCount, WCHAR* wide,
                        int wideSize) {
  // -1: up to the terminator, which is not shown.
  const size_t length =
      byteCount < 0 && bytes ? std::strlen(bytes) : static_cast<size_t>(byteCount);
  const std::string text = bytes ? QuoteBytes({bytes, length}) : std::string("null");
  const std::string arguments = List(Number(codePage), Number(flags), text, Number(byteCount),
                                     Presence(wide), Number(wideSize));
  const FakeHost::ScriptedAnswer answer = Host().Ask("MultiByteToWideChar", arguments);
  const size_t room = wide ? static_cast<size_t>(wideSize) * sizeof(WCHAR) : 0;
  if (!FillBytes("MultiByteToWideChar", wide, room, answer.bytes)) return 0;
  return static_cast<int>(answer.value);
}

int WideCharToMultiByte(UINT codePage, DWORD flags, const WCHAR* wide, int wideCount, char* bytes,
                        int byteSize, const char* defaultChar, BOOL* usedDefault) {
  const std::string arguments =
      List(Number(codePage), Number(flags), QuoteWide(wide, wideCount), Number(wideCount),
           Presence(bytes), Number(byteSize), Presence(defaultChar), Presence(usedDefault));
  const FakeHost::ScriptedAnswer answer = Host().Ask("WideCharToMultiByte", arguments);
  const size_t room = bytes ? static_cast<size_t>(byteSize) : 0;
  if (!FillBytes("WideCharToMultiByte", bytes, room, answer.bytes)) return 0;
  return static_cast<int>(answer.value);
}

DWORD GetFileVersionInfoSizeW(const WCHAR* path, DWORD* handle) {
  const std::string arguments = List(Quote(ZelString(path)), Presence(handle));
  return static_cast<DWORD>(Ask("GetFileVersionInfoSizeW", arguments));
}

BOOL GetFileVersionInfoW(const WCHAR* path, DWORD handle, DWORD size, void* data) {
  const std::string arguments = List(Quote(ZelString(path)), Number(handle), Number(size));
  const FakeHost::ScriptedAnswer answer = Host().Ask("GetFileVersionInfoW", arguments);
  if (!FillBytes("GetFileVersionInfoW", data, size, answer.bytes)) return 0;
  return answer.value != 0;
}

BOOL VerQueryValueW(const void* data, const WCHAR* path, void** value, UINT* length) {
  FakeHost& host = Host();
  const std::string arguments =
      List(QuoteBytes(static_cast<const char*>(data)), Quote(ZelString(path)));
  FakeHost::ScriptedAnswer answer = host.Ask("VerQueryValueW", arguments);
  if (!answer.hasBytes) return static_cast<BOOL>(answer.value);
  *value = const_cast<char*>(host.Keep(std::move(answer.bytes)).data());
  *length = static_cast<UINT>(answer.value);
  return 1;
}

HANDLE GetCurrentProcess() {
  return AskPointer<void>("GetCurrentProcess");
}

/// The answer is the token, 0 a failure.
BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE* token) {
  const std::string arguments = List(Pointer(process), Number(access), Presence(token));
  const int64_t answer = Ask("OpenProcessToken", arguments);
  if (!answer) return 0;
  *token = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(answer));
  return 1;
}

/// The answer is the privilege's number, its high part in the upper 32 bits; 0 is a failure.
BOOL LookupPrivilegeValueW(const WCHAR* systemName, const WCHAR* name, LUID* luid) {
  const std::string system = systemName ? Quote(ZelString(systemName)) : "null";
  const std::string arguments = List(system, Quote(ZelString(name)), Presence(luid));
  const int64_t answer = Ask("LookupPrivilegeValueW", arguments);
  if (!answer) return 0;
  luid->LowPart = static_cast<DWORD>(answer);
  luid->HighPart = static_cast<LONG>(answer >> 32);
  return 1;
}

BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAll, const TOKEN_PRIVILEGES* newState,
                           DWORD bufferLength, TOKEN_PRIVILEGES* previous, DWORD* previousLength) {
  std::string privileges = "null";
  if (newState) {
    const LUID_AND_ATTRIBUTES& first = newState->Privileges[0];
    privileges = "{" +
                 List(Number(newState->PrivilegeCount), Number(first.Luid.LowPart),
                      Number(first.Luid.HighPart), Number(first.Attributes)) +
                 "}";
  }
  const std::string arguments =
      List(Pointer(token), Number(disableAll), privileges, Number(bufferLength), Presence(previous),
           Presence(previousLength));
  return static_cast<BOOL>(Ask("AdjustTokenPrivileges", arguments));
}

BOOL ExitWindowsEx(UINT flags, DWORD reason) {
  const std::string arguments = List(Number(flags), AllBits(reason));
  return static_cast<BOOL>(Ask("ExitWindowsEx", arguments));
}

/// A list answers the names of records; the status returned beside them is its number. A number
/// alone is a status with which nothing is stored.
NET_API_STATUS NetServerEnum(const WCHAR* server, DWORD level, uint8_t** buffer,
                             DWORD preferredBytes, DWORD* entriesRead, DWORD* totalEntries,
                             DWORD serverType, const WCHAR* domain, DWORD* resume) {
  constexpr int64_t kNoBrowser = 6118;
  const std::string arguments =
      List(QuoteTerminated(server), Number(level), Presence(buffer), AllBits(preferredBytes),
           Presence(entriesRead), Presence(totalEntries), AllBits(serverType),
           QuoteTerminated(domain), Presence(resume));
  const FakeHost::ScriptedAnswer answer = Host().Ask("NetServerEnum", arguments, kNoBrowser);
  if (answer.isList) {
    handedOut = MakeServerBuffer(answer.list);
    Host().Hold();
    *buffer = handedOut.bytes;
    *entriesRead = static_cast<DWORD>(answer.list.size());
    // More than there are in the buffer, as when the system has not told all.
    *totalEntries = *entriesRead + 1;
  }
  return static_cast<NET_API_STATUS>(answer.value);
}

/// What was freed holds no names any more.
NET_API_STATUS NetApiBufferFree(void* buffer) {
  if (!buffer || buffer != handedOut.bytes) {
    Host().NoteRelease("~Unknown buffer");
    return 0;
  }
  Host().NoteRelease("~NetApiBuffer");
  std::fill(handedOut.names, handedOut.namesEnd, u'?');
  handedOut = {};
  return 0;
}
