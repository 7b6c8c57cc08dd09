#include "agent/libZel/native_path.h"

#include <unistd.h>

#include "agent/libZel/platform/posix/byte_names.h"
#include "agent/libZel/platform_path.h"
#include "agent/libZel/wtf8.h"

namespace {

constexpr uint32_t kByteEscapeBase = 0xDC00;

std::map<char, std::string>& DriveMap() {
  static std::map<char, std::string> drives{{'C', "/"}};
  return drives;
}

char UpperLetter(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

NativePath Refused(const std::string& reason) {
  return {{}, reason};
}

}  // namespace

const char platform_path::kSeparator = '/';
const bool platform_path::kSlashesNameShares = false;
const bool platform_path::kRootsHaveDrives = false;

std::optional<std::string> BytesOf(std::string_view wtf8) {
  if (IsUtf8(wtf8)) return std::string(wtf8);
  std::string bytes;
  bytes.reserve(wtf8.size());
  while (!wtf8.empty()) {
    uint32_t codePoint = 0;
    const size_t length = DecodeWtf8(wtf8, &codePoint);
    if (length == 0) return std::nullopt;
    if (codePoint >= kByteEscapeBase + 0x80 && codePoint <= kByteEscapeBase + 0xFF) {
      bytes.push_back(static_cast<char>(codePoint - kByteEscapeBase));
    } else if (IsSurrogate(codePoint)) {
      return std::nullopt;
    } else {
      bytes.append(wtf8.substr(0, length));
    }
    wtf8.remove_prefix(length);
  }
  return bytes;
}

ZelString TextOfBytes(std::string_view bytes) {
  if (IsUtf8(bytes)) return ZelString(bytes);
  std::string text;
  text.reserve(bytes.size() * 3);
  while (!bytes.empty()) {
    uint32_t codePoint = 0;
    size_t length = DecodeWtf8(bytes, &codePoint);
    // Surrogates are not UTF-8 either: kept as such, they would be taken for the bytes they escape.
    if (length == 0 || IsSurrogate(codePoint)) {
      codePoint = kByteEscapeBase + static_cast<unsigned char>(bytes[0]);
      length = 1;
    }
    AppendWtf8(codePoint, &text);
    bytes.remove_prefix(length);
  }
  return ZelString(text);
}

ZelString platform_path::WorkingDirectory() {
  return TextOfBytes(std::filesystem::current_path().native());
}

NativePath platform_path::Assemble(const PathParts& parts) {
  if (IsShare(parts.drive)) return Refused("shares are not reachable as paths on this system");
  std::string bytes;
  if (!parts.drive.empty()) {
    const char letter = UpperLetter(parts.drive[0]);
    const auto drive = DriveMap().find(letter);
    if (drive == DriveMap().end()) {
      return Refused(std::string("drive ") + letter + ": is not known");
    }
    bytes = drive->second;
    while (bytes.ends_with('/')) bytes.pop_back();
  }
  for (const std::string_view name : parts.names) {
    const std::optional<std::string> nameBytes = BytesOf(name);
    if (!nameBytes) return Refused("the path holds a surrogate that stands for no byte");
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
