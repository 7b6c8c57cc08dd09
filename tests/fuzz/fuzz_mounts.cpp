// The list of mounted file systems, whose directories and sources are named by whoever mounts
// them: what is found holds the directory that was asked for, and the kind of drive is one that
// there is. The first line of the input is the directory.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "agent/windows_api/mounts.h"
#include "tests/fuzz/require.h"
#include "windows_api.h"

namespace {

bool Holds(const std::string& mountPoint, std::string_view directory) {
  if (!directory.starts_with(mountPoint)) return false;
  return mountPoint.ends_with('/') || mountPoint.size() == directory.size() ||
         directory[mountPoint.size()] == '/';
}

std::string Octal(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    escaped += {'\\', static_cast<char>('0' + (byte >> 6)),
                static_cast<char>('0' + (byte >> 3 & 7)), static_cast<char>('0' + (byte & 7))};
  }
  return escaped;
}

void CheckFound(const std::optional<Mount>& mount, std::string_view directory) {
  if (!mount) return;
  Require(Holds(mount->directory, directory));
  const unsigned type = DriveTypeOf(*mount);
  Require(type == DRIVE_FIXED || type == DRIVE_REMOTE || type == DRIVE_CDROM ||
          type == DRIVE_RAMDISK);
}

// A directory of any name, as the kernel writes it, is found with this name.
void CheckEscaped(std::string_view name) {
  if (name.empty()) return;
  const std::string line =
      "7 1 8:1 / " + Octal(name) + " rw - " + Octal(name) + " " + Octal(name) + " rw\n";
  const std::optional<Mount> mount = FindMount(line, name, std::nullopt);
  Require(mount && mount->id == 7 && mount->directory == name);
  Require(mount->fileSystem == name && mount->source == name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t end = std::min(input.find('\n'), size);
  const std::string_view directory = input.substr(0, end);
  const std::string_view mountInfo = input.substr(std::min(end + 1, size));

  CheckFound(FindMount(mountInfo, directory, std::nullopt), directory);
  const std::optional<Mount> byNumber = FindMount(mountInfo, directory, 7);
  if (byNumber && byNumber->id != 7) CheckFound(byNumber, directory);
  CheckEscaped(directory);
  return 0;
}
