#pragma once

#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

#include "agent/libZel/open_file.h"

namespace file_system {

struct Security {
  uid_t owner = 0;
  gid_t group = 0;
  mode_t mode = 0;
  /// The extended attributes: access control lists, security labels, the user's own.
  std::vector<std::pair<std::string, std::string>> attributes;
};

/// Those of an open file of which `info` tells the rest.
Security SecurityOf(int fd, const struct stat& info);

/// Gives an open file as much of `security` as the system allows. Set-ID bits come only with the
/// owner, and a group that is not the old one may do no more than everybody.
void ApplySecurity(const Security& security, int fd);

}  // namespace file_system
