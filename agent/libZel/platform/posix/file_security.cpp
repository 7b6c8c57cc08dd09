#include "agent/libZel/platform/posix/file_security.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string_view>

#include "agent/libZel/platform/posix/permissions.h"
#include "agent/libZel/platform/posix/unique_fd.h"

namespace file_system {
namespace {

constexpr mode_t kOwnModeBits = 07777;
constexpr int kMaxSizeAttempts = 5;
constexpr const char* kAccessList = "system.posix_acl_access";

// A text of unknown length, which may change between asking for the length and for the text.
template <typename Get>
std::optional<std::string> SizedText(Get get) {
  for (int attempt = 0; attempt < kMaxSizeAttempts; ++attempt) {
    const ssize_t size = get(nullptr, 0);
    if (size < 0) return std::nullopt;
    std::string text(static_cast<size_t>(size), '\0');
    if (size == 0) return text;
    const ssize_t count = get(text.data(), text.size());
    if (count >= 0) {
      text.resize(static_cast<size_t>(count));
      return text;
    }
    if (errno != ERANGE) return std::nullopt;
  }
  return std::nullopt;
}

// Hashes of the content, which the kernel keeps itself.
bool BelongsToContent(std::string_view name) {
  return name == "security.ima" || name == "security.evm";
}

std::vector<std::pair<std::string, std::string>> ExtendedAttributesOf(int fd) {
  // By this name it also works for files that were opened without the right to read them.
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  std::vector<std::pair<std::string, std::string>> attributes;
  const auto names =
      SizedText([&](char* text, size_t size) { return listxattr(path.c_str(), text, size); });
  if (!names) return attributes;
  for (size_t start = 0; start < names->size();) {
    std::string name = names->c_str() + start;
    start += name.size() + 1;
    auto value = SizedText(
        [&](char* text, size_t size) { return getxattr(path.c_str(), name.c_str(), text, size); });
    if (value && !BelongsToContent(name)) {
      attributes.emplace_back(std::move(name), std::move(*value));
    }
  }
  return attributes;
}

// The mode as far as the new owner and group leave it valid.
mode_t ModeAfterChangingOwner(const Security& security, int fd) {
  if (fchown(fd, security.owner, security.group) == 0) return security.mode & kOwnModeBits;
  const mode_t mode = security.mode & kPermissions;
  if (fchown(fd, static_cast<uid_t>(-1), security.group) == 0) return mode;
  const mode_t everybody = mode & S_IRWXO;
  return (mode & ~mode_t{S_IRWXG}) | (mode & (everybody << 3));
}

}  // namespace

Security SecurityOf(int fd, const struct stat& info) {
  return {info.st_uid, info.st_gid, info.st_mode & kOwnModeBits, ExtendedAttributesOf(fd)};
}

void ApplySecurity(const Security& security, int fd) {
  const mode_t mode = ModeAfterChangingOwner(security, fd);
  bool hasAccessList = false;
  for (const auto& [name, value] : security.attributes) {
    hasAccessList |= name == kAccessList;
    static_cast<void>(fsetxattr(fd, name.c_str(), value.data(), value.size(), 0));
  }
  // One that the directory gives to new files would let others in.
  if (!hasAccessList) static_cast<void>(fremovexattr(fd, kAccessList));
  // Where the file system has other permissions, the file stays private.
  static_cast<void>(fchmod(fd, mode));
}

std::shared_ptr<const Security> SecurityOf(const std::filesystem::path& path) {
  const UniqueFd fd(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat info;
  if (!fd || fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return nullptr;
  return std::make_shared<const Security>(SecurityOf(fd.Get(), info));
}

}  // namespace file_system
