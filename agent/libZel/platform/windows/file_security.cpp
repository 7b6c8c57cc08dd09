#include "agent/libZel/platform/windows/file_security.h"

#include <aclapi.h>

namespace file_system {
namespace {

constexpr SECURITY_INFORMATION kOwner = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION;

void ReadDescriptor(const std::filesystem::path& path, Security* security) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, kOwner | DACL_SECURITY_INFORMATION,
                            nullptr, nullptr, &security->dacl, nullptr,
                            &descriptor) != ERROR_SUCCESS) {
    return;
  }
  security->descriptor.reset(descriptor);
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  if (GetSecurityDescriptorControl(descriptor, &control, &revision) &&
      (control & SE_DACL_AUTO_INHERITED) != 0) {
    // Without this, what the list has from the directory would count as the file's own.
    SetSecurityDescriptorControl(descriptor, SE_DACL_AUTO_INHERIT_REQ, SE_DACL_AUTO_INHERIT_REQ);
  }
}

}  // namespace

std::shared_ptr<const Security> SecurityOf(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    return nullptr;
  }
  const auto security = std::make_shared<Security>();
  security->attributes = attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
  ReadDescriptor(path, security.get());
  return security;
}

CreationSecurity::CreationSecurity(const Security* security) {
  if (security == nullptr || !security->descriptor) return;
  // Protected: what the directory hands down must not add to it.
  if (InitializeSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION) &&
      SetSecurityDescriptorDacl(&descriptor_, TRUE, security->dacl, FALSE) &&
      SetSecurityDescriptorControl(&descriptor_, SE_DACL_PROTECTED, SE_DACL_PROTECTED)) {
    attributes_.lpSecurityDescriptor = &descriptor_;
  }
}

void ApplySecurity(const Security& security, const std::filesystem::path& path) {
  if (!security.descriptor) return;
  // Another owner needs a privilege that the agent may lack.
  SetFileSecurityW(path.c_str(), kOwner, security.descriptor.get());
  // The list as it stands: what the directory hands down today must not add to it.
  SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, security.descriptor.get());
}

}  // namespace file_system
