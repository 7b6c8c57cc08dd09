#pragma once

#include <windows.h>

#include <filesystem>

#include "agent/libZel/open_file.h"
#include "agent/libZel/platform/windows/local_memory.h"

namespace file_system {

struct Security {
  /// A self-relative security descriptor, which `dacl` leads into; null when the file system has
  /// none. A null `dacl` lets everybody do everything.
  LocalMemory<> descriptor;
  PACL dacl = nullptr;
  /// FILE_ATTRIBUTE_HIDDEN and FILE_ATTRIBUTE_SYSTEM as far as the file has them.
  DWORD attributes = 0;
};

/// A descriptor that gives a new file the permissions of another from its first moment.
class CreationSecurity {
 public:
  explicit CreationSecurity(const Security* security);
  /// Null where there is nothing to give. Lives as long as this and `security`.
  SECURITY_ATTRIBUTES* Get() { return attributes_.lpSecurityDescriptor ? &attributes_ : nullptr; }

 private:
  SECURITY_DESCRIPTOR descriptor_{};
  SECURITY_ATTRIBUTES attributes_{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
};

/// Gives a file as much of `security` as the system allows, its attributes excepted.
void ApplySecurity(const Security& security, const std::filesystem::path& path);

}  // namespace file_system
