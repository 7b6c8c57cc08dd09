#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// A mounted file system, from a line of /proc/self/mountinfo.
struct Mount {
  uint64_t id = 0;
  dev_t device = 0;
  std::string directory;  ///< where it is mounted
  std::string fileSystem;
  std::string source;  ///< "/dev/sda1", "server:/share", ...
};

/// The mount that holds `directory` (absolute, without links): the one of the number `id` when that
/// is given and known, else the innermost one; of several in the same place the last. Lines that
/// make no sense are passed over. Nothing when no mount holds it.
std::optional<Mount> FindMount(std::string_view mountInfo, std::string_view directory,
                               std::optional<uint64_t> id);

/// The kind of drive, `DRIVE_...`, that the file system's kind and source tell; `DRIVE_FIXED` where
/// only the device could say more.
unsigned DriveTypeOf(const Mount& mount);

/// The label of the device: the name of the link in `directory` (/dev/disk/by-label) that leads to
/// it, with "\x20" and the like decoded. Empty when there is none.
std::string LabelOf(dev_t device, const std::string& directory);
