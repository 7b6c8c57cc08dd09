#include "agent/windows_api/mounts.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <vector>

#include "agent/libZel/whole_number.h"
#include "windows_api.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (!text.empty()) {
    const size_t end = std::min(text.find(separator), text.size());
    if (end > 0) parts.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

// Replaces each "\" with `prefix` and `digits` digits of `base` by the byte they name.
std::string Unescape(std::string_view text, std::string_view prefix, size_t digits, int base) {
  std::string bytes;
  while (!text.empty()) {
    const size_t length = prefix.size() + digits;
    const bool isEscape = text.size() >= length && text.starts_with(prefix);
    const auto byte = isEscape ? ReadWholeNumber<uint8_t>(text.substr(prefix.size(), digits), base)
                               : std::nullopt;
    bytes.push_back(byte ? static_cast<char>(*byte) : text[0]);
    text.remove_prefix(byte ? length : 1);
  }
  return bytes;
}

std::string UnescapeOctal(std::string_view text) {
  return Unescape(text, "\\", 3, 8);
}

// "ID PARENT MAJOR:MINOR ROOT DIRECTORY OPTIONS [FIELD]... - FILESYSTEM SOURCE OPTIONS"
std::optional<Mount> ParseLine(std::string_view line) {
  constexpr size_t kFixedFields = 6;
  const std::vector<std::string_view> fields = Split(line, ' ');
  if (fields.size() < kFixedFields) return std::nullopt;
  const auto dash = std::find(fields.begin() + kFixedFields, fields.end(), "-");
  if (fields.end() - dash < 3) return std::nullopt;

  const size_t colon = fields[2].find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const auto id = ReadWholeNumber<uint64_t>(fields[0]);
  const auto majorNumber = ReadWholeNumber<unsigned>(fields[2].substr(0, colon));
  const auto minorNumber = ReadWholeNumber<unsigned>(fields[2].substr(colon + 1));
  if (!id || !majorNumber || !minorNumber) return std::nullopt;

  Mount mount;
  mount.id = *id;
  mount.device = makedev(*majorNumber, *minorNumber);
  mount.directory = UnescapeOctal(fields[4]);
  mount.fileSystem = UnescapeOctal(dash[1]);
  mount.source = UnescapeOctal(dash[2]);
  return mount;
}

bool Holds(std::string_view mountPoint, std::string_view directory) {
  if (!directory.starts_with(mountPoint)) return false;
  return mountPoint.ends_with('/') || directory.size() == mountPoint.size() ||
         directory[mountPoint.size()] == '/';
}

template <size_t kCount>
bool IsOneOf(std::string_view text, const std::string_view (&list)[kCount]) {
  return std::find(std::begin(list), std::end(list), text) != std::end(list);
}

}  // namespace

std::optional<Mount> FindMount(std::string_view mountInfo, std::string_view directory,
                               std::optional<uint64_t> id) {
  std::optional<Mount> found;
  for (const std::string_view line : Split(mountInfo, '\n')) {
    std::optional<Mount> mount = ParseLine(line);
    if (!mount) continue;
    if (id && mount->id == *id) return mount;
    if (!Holds(mount->directory, directory)) continue;
    if (!found || mount->directory.size() >= found->directory.size()) found = std::move(mount);
  }
  return found;
}

unsigned DriveTypeOf(const Mount& mount) {
  static constexpr std::string_view kRemote[] = {"nfs",
                                                 "nfs4",
                                                 "cifs",
                                                 "smb3",
                                                 "smbfs",
                                                 "9p",
                                                 "ceph",
                                                 "afs",
                                                 "coda",
                                                 "ncpfs",
                                                 "davfs",
                                                 "glusterfs",
                                                 "lustre",
                                                 "gfs2",
                                                 "fuse.sshfs",
                                                 "fuse.rclone",
                                                 "fuse.davfs",
                                                 "fuse.davfs2",
                                                 "fuse.s3fs",
                                                 "fuse.curlftpfs",
                                                 "fuse.glusterfs",
                                                 "fuse.ceph",
                                                 "fuse.cephfs"};
  static constexpr std::string_view kMemory[] = {"tmpfs", "ramfs"};
  static constexpr std::string_view kDisc[] = {"iso9660", "udf"};
  if (IsOneOf(mount.fileSystem, kRemote)) return DRIVE_REMOTE;
  if (IsOneOf(mount.fileSystem, kMemory)) return DRIVE_RAMDISK;
  if (IsOneOf(mount.fileSystem, kDisc)) return DRIVE_CDROM;
  // Web folders come as plain "fuse".
  const bool isUrl = mount.source.find("://") != std::string::npos;
  return mount.fileSystem.starts_with("fuse") && isUrl ? DRIVE_REMOTE : DRIVE_FIXED;
}

std::string LabelOf(dev_t device, const std::string& directory) {
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    struct stat status {};
    if (stat(entry->path().c_str(), &status) != 0 || status.st_rdev != device) continue;
    return Unescape(entry->path().filename().native(), "\\x", 2, 16);
  }
  return {};
}
