#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>

#include "agent/libZel/native_path.h"
#include "agent/windows_api/mounts.h"
#include "windows_api.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kMountInfo = "/proc/self/mountinfo";
constexpr const char* kLabels = "/dev/disk/by-label";
constexpr const char* kBlockDevices = "/sys/dev/block/";

std::string ReadText(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// The directory behind "C:\" or "C:"; empty when there is none.
fs::path DirectoryOf(const WCHAR* root) {
  if (!root) return {};
  const ZelString text(root);
  const std::string_view utf8 = text.Utf8();
  const bool isRoot = utf8.size() >= 2 && utf8.size() <= 3 && utf8[1] == ':' &&
                      (utf8.size() == 2 || utf8[2] == '\\' || utf8[2] == '/');
  if (!isRoot) return {};
  const NativePath native = ToNativePath(ZelString(utf8.substr(0, 2)) + "\\");
  if (!native) return {};
  std::error_code error;
  const fs::path directory = fs::canonical(native.path, error);
  return !error && fs::is_directory(directory, error) ? directory : fs::path();
}

// Kernels before 5.8 do not tell.
std::optional<uint64_t> MountIdOf(const fs::path& directory) {
  struct statx status {};
  const int result = statx(AT_FDCWD, directory.c_str(), 0, STATX_MNT_ID, &status);
  if (result != 0 || (status.stx_mask & STATX_MNT_ID) == 0) return std::nullopt;
  return status.stx_mnt_id;
}

Mount MountOf(const fs::path& directory) {
  const std::string mountInfo = ReadText(kMountInfo);
  return FindMount(mountInfo, directory.native(), MountIdOf(directory)).value_or(Mount{});
}

// Some file systems mount a number of their own, and name the device as their source.
dev_t BlockDeviceOf(const Mount& mount) {
  struct stat status {};
  const bool isDevice = mount.source.starts_with('/') && stat(mount.source.c_str(), &status) == 0 &&
                        S_ISBLK(status.st_mode);
  return isDevice ? status.st_rdev : mount.device;
}

bool IsRemovable(dev_t device) {
  const std::string base =
      kBlockDevices + std::to_string(major(device)) + ":" + std::to_string(minor(device));
  // A partition leaves the answer to its disk.
  return ReadText(base + "/removable").starts_with('1') ||
         ReadText(base + "/../removable").starts_with('1');
}

// Cut to the buffer, which always ends in a terminator.
void Fill(const std::string& text, WCHAR* buffer, DWORD size) {
  if (!buffer || size == 0) return;
  const ZelString wide(text);
  const std::basic_string_view<WCHAR> view(wide.GetTCHAR());
  const size_t count = std::min<size_t>(view.size(), size - 1);
  std::copy_n(view.begin(), count, buffer);
  buffer[count] = 0;
}

}  // namespace

UINT GetDriveTypeW(const WCHAR* root) try {
  const fs::path directory = DirectoryOf(root);
  if (directory.empty()) return DRIVE_NO_ROOT_DIR;
  const Mount mount = MountOf(directory);
  const UINT type = DriveTypeOf(mount);
  return type == DRIVE_FIXED && IsRemovable(BlockDeviceOf(mount)) ? DRIVE_REMOVABLE : type;
} catch (...) {
  return DRIVE_UNKNOWN;
}

BOOL GetVolumeInformationW(const WCHAR* root, WCHAR* label, DWORD labelSize, DWORD* serialNumber,
                           DWORD* componentLength, DWORD* flags, WCHAR* fileSystem,
                           DWORD fileSystemSize) try {
  if (serialNumber || componentLength || flags) return 0;
  const fs::path directory = DirectoryOf(root);
  if (directory.empty()) return 0;
  const Mount mount = MountOf(directory);
  Fill(LabelOf(BlockDeviceOf(mount), kLabels), label, labelSize);
  Fill(mount.fileSystem, fileSystem, fileSystemSize);
  return 1;
} catch (...) {
  return 0;
}
