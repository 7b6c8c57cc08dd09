#include "agent/libZel/native_path.h"

#include "agent/libZel/ascii.h"
#include "agent/libZel/platform/posix/byte_names.h"
#include "agent/libZel/platform_path.h"
#include "agent/libZel/wtf8.h"

namespace {

std::map<char, std::string>& DriveMap() {
  static std::map<char, std::string> drives{{'C', "/"}};
  return drives;
}

}  // namespace

const char platform_path::kSeparator = '/';
const bool platform_path::kSlashesNameShares = false;
const bool platform_path::kRootsHaveDrives = false;

std::optional<std::string> BytesOf(std::string_view wtf8) {
  bool isWhole = true;
  std::string bytes = UnescapeBytes(wtf8, &isWhole);
  if (!isWhole) return std::nullopt;
  return bytes;
}

ZelString TextOfBytes(std::string_view bytes) {
  return IsUtf8(bytes) ? ZelString(bytes) : ZelString(EscapeBytes(bytes));
}

ZelString platform_path::WorkingDirectory() {
  return TextOfBytes(std::filesystem::current_path().native());
}

NativePath platform_path::Assemble(const PathParts& parts) {
  if (IsShare(parts.drive)) return RefusedPath("shares are not reachable as paths on this system");
  std::string bytes;
  if (!parts.drive.empty()) {
    const char letter = AsciiUpper(parts.drive[0]);
    const auto drive = DriveMap().find(letter);
    if (drive == DriveMap().end()) {
      return RefusedPath(std::string("drive ") + letter + ": is not known");
    }
    bytes = drive->second;
    while (bytes.ends_with('/')) bytes.pop_back();
  }
  for (const std::string_view name : parts.names) {
    const std::optional<std::string> nameBytes = BytesOf(name);
    if (!nameBytes) return RefusedPath("the path holds a surrogate that stands for no byte");
    bytes += '/';
    bytes += *nameBytes;
  }
  if (bytes.empty()) bytes += '/';
  return {std::filesystem::path(std::move(bytes)), {}};
}

ZelString FromNativePath(const std::filesystem::path& path) {
  return TextOfBytes(path.native());
}

void SetDriveMap(const std::map<char, std::string>& drives) {
  DriveMap() = drives;
}
