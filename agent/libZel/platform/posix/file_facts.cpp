#include "agent/libZel/file_facts.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/permissions.h"
#include "agent/libZel/platform/posix/stat_facts.h"
#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/text_test.h"

namespace {

constexpr mode_t kModeBits = S_IFMT | 07777;

// Should a pipe or terminal have taken the file's place meanwhile, it is not waited for, and does
// not become ours.
constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

UniqueFd OpenToLook(int directory, const char* name) {
  // Looking at a file is not using it. Only its owner may ask for that.
  UniqueFd fd(openat(directory, name, kReadFlags | O_NOATIME));
  if (!fd && errno == EPERM) fd = UniqueFd(openat(directory, name, kReadFlags));
  return fd;
}

ssize_t ReadSome(int fd, char* buffer, size_t size) {
  return Uninterrupted([&] { return read(fd, buffer, size); });
}

}  // namespace

FileFacts FactsOf(const struct stat& info, uint32_t attributes) {
  const bool isDirectory = S_ISDIR(info.st_mode);
  if (isDirectory) attributes |= kDirectoryAttribute;
  if (!isDirectory && (info.st_mode & kAnyWrite) == 0) attributes |= kReadOnlyAttribute;
  FileFacts facts;
  facts.attributes = CompleteAttributes(attributes);
  facts.writeTime = ClampTime(info.st_mtime);
  facts.mode = info.st_mode & kModeBits;
  facts.isReadable = S_ISREG(info.st_mode);
  if (facts.isReadable) facts.sizeBytes = info.st_size;
  return facts;
}

bool IsTextAt(int directory, const char* name) {
  const UniqueFd fd = OpenToLook(directory, name);
  if (!fd) return false;
  char bytes[kTextTestBytes];
  const ssize_t count = ReadSome(fd.Get(), bytes, sizeof bytes);
  return count >= 0 && LooksLikeText(bytes, static_cast<size_t>(count));
}

namespace file_system {

FileFacts FactsOf(const std::filesystem::path& path) {
  const std::string& text = path.native();
  uint32_t attributes = AttributesOfName(std::string_view(text).substr(text.rfind('/') + 1));
  struct stat info;
  if (lstat(text.c_str(), &info) != 0) return {};
  if (!S_ISLNK(info.st_mode)) return ::FactsOf(info, attributes);

  attributes |= kLinkAttribute;
  if (stat(text.c_str(), &info) == 0) return ::FactsOf(info, attributes);
  FileFacts facts;
  facts.attributes = attributes;
  return facts;
}

bool IsTextFile(const std::filesystem::path& path) {
  return IsTextAt(AT_FDCWD, path.c_str());
}

}  // namespace file_system
