#include "agent/libZel/file_facts.h"

#include <windows.h>

#include <optional>
#include <string_view>

#include "agent/libZel/file_time_ticks.h"
#include "agent/libZel/platform/windows/file_access.h"
#include "agent/libZel/platform/windows/find_facts.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/text_test.h"

namespace {

// The content is elsewhere, and reading would fetch it. The headers of mingw-w64 lack two of them.
constexpr DWORD kRecallOnOpen = 0x00040000;
constexpr DWORD kRecallOnDataAccess = 0x00400000;
constexpr DWORD kRemote = FILE_ATTRIBUTE_OFFLINE | kRecallOnOpen | kRecallOnDataAccess;

constexpr uint32_t kModeDirectory = 0040000;
constexpr uint32_t kModeRegular = 0100000;
constexpr uint32_t kModeReadable = 0444;
constexpr uint32_t kModeWritable = 0222;
constexpr uint32_t kModeExecutable = 0111;

int64_t UnixSeconds(const FILETIME& time) {
  const auto ticks =
      static_cast<int64_t>((uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime);
  return ticks / kTicksPerSecond - kUnixEpochTicks / kTicksPerSecond;
}

bool IsProgram(std::wstring_view name) {
  for (const std::wstring_view extension : {L".exe", L".com", L".bat", L".cmd"}) {
    if (name.size() < extension.size()) continue;
    const std::wstring_view end = name.substr(name.size() - extension.size());
    if (CompareStringOrdinal(end.data(), static_cast<int>(end.size()), extension.data(),
                             static_cast<int>(extension.size()), TRUE) == CSTR_EQUAL) {
      return true;
    }
  }
  return false;
}

uint32_t ModeOf(DWORD attributes, std::wstring_view name) {
  const bool isDirectory = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  uint32_t mode = kModeReadable | (isDirectory ? kModeDirectory : kModeRegular);
  if ((attributes & FILE_ATTRIBUTE_READONLY) == 0) mode |= kModeWritable;
  if (isDirectory || IsProgram(name)) mode |= kModeExecutable;
  return mode;
}

// The facts of what is no link, or of what a link leads to.
FileFacts FactsOfTarget(const FoundEntry& found, std::wstring_view name) {
  FileFacts facts;
  facts.attributes = AttributesOf(found);
  facts.writeTime = ClampTime(UnixSeconds(found.written));
  facts.mode = ModeOf(found.attributes, name);
  if ((found.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return facts;
  facts.sizeBytes = static_cast<int64_t>(found.sizeBytes);
  facts.isReadable = (found.attributes & kRemote) == 0;
  return facts;
}

std::optional<FoundEntry> Find(const std::filesystem::path& path) {
  WIN32_FIND_DATAW data;
  const HANDLE search =
      FindFirstFileExW(path.c_str(), FindExInfoBasic, &data, FindExSearchNameMatch, nullptr, 0);
  if (search == INVALID_HANDLE_VALUE) return std::nullopt;
  FindClose(search);
  return EntryOf(data);
}

// The entry itself, a link being a link.
std::optional<FoundEntry> LookAt(const std::filesystem::path& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
    // Page files are held so that only their directory tells of them.
    return GetLastError() == ERROR_SHARING_VIOLATION ? Find(path) : std::nullopt;
  }
  // What kind of reparse point it is, the directory knows.
  if ((data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    if (const std::optional<FoundEntry> found = Find(path)) return found;
  }
  FoundEntry found;
  found.attributes = data.dwFileAttributes;
  found.written = data.ftLastWriteTime;
  found.sizeBytes = (uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow;
  return found;
}

// What a link leads to.
std::optional<FoundEntry> Follow(const std::filesystem::path& path) {
  const UniqueHandle handle(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!handle || GetFileType(handle.Get()) != FILE_TYPE_DISK) return std::nullopt;
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(handle.Get(), &info)) return std::nullopt;
  FoundEntry found;
  found.attributes = info.dwFileAttributes;
  found.written = info.ftLastWriteTime;
  found.sizeBytes = (uint64_t{info.nFileSizeHigh} << 32) | info.nFileSizeLow;
  return found;
}

UniqueHandle OpenToRead(const std::filesystem::path& path, DWORD flags) {
  return UniqueHandle(CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL | flags, nullptr));
}

}  // namespace

bool IsLink(const FoundEntry& found) {
  return (found.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
         (found.reparseTag == IO_REPARSE_TAG_SYMLINK ||
          found.reparseTag == IO_REPARSE_TAG_MOUNT_POINT);
}

uint32_t AttributesOf(const FoundEntry& found) {
  constexpr uint32_t kTold =
      kReadOnlyAttribute | kHiddenAttribute | kSystemAttribute | kDirectoryAttribute;
  return CompleteAttributes((found.attributes & kTold) | (IsLink(found) ? kLinkAttribute : 0));
}

FoundEntry EntryOf(const WIN32_FIND_DATAW& data) {
  FoundEntry found;
  found.attributes = data.dwFileAttributes;
  found.reparseTag = data.dwReserved0;
  found.written = data.ftLastWriteTime;
  found.sizeBytes = (uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow;
  return found;
}

FileFacts FactsOf(const FoundEntry& found, const std::filesystem::path& path) {
  if (!IsLink(found)) return FactsOfTarget(found, path.native());
  FileFacts facts;
  if (const std::optional<FoundEntry> target = Follow(path)) {
    facts = FactsOfTarget(*target, path.native());
  }
  facts.attributes = AttributesOf(found);
  return facts;
}

namespace file_system {

FileFacts FactsOf(const std::filesystem::path& path) {
  const std::optional<FoundEntry> found = LookAt(path);
  return found ? ::FactsOf(*found, path) : FileFacts{};
}

bool IsTextFile(const std::filesystem::path& path) {
  const UniqueHandle handle = OpenToRead(path, FILE_FLAG_OPEN_NO_RECALL);
  if (!handle || GetFileType(handle.Get()) != FILE_TYPE_DISK) return false;
  char bytes[kTextTestBytes];
  DWORD count = 0;
  if (!ReadFile(handle.Get(), bytes, sizeof bytes, &count, nullptr)) return false;
  return LooksLikeText(bytes, count);
}

}  // namespace file_system
