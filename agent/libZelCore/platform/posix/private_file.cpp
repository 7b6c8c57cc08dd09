#include "agent/libZelCore/private_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace {

[[noreturn]] void Fail(const std::filesystem::path& file, const char* step) {
  throw std::runtime_error(std::string("cannot ") + step + " " + file.string() + ": " +
                           std::generic_category().message(errno));
}

bool WriteAll(int descriptor, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = ::write(descriptor, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    content.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace

void WritePrivateFile(const std::filesystem::path& file, std::string_view content) {
  std::string temporary = file.string() + ".XXXXXX";
  const int descriptor = ::mkstemp(temporary.data());  // created with mode 0600
  if (descriptor < 0) Fail(file, "create a file beside");

  const bool isWritten = WriteAll(descriptor, content) && ::fsync(descriptor) == 0;
  const int writeError = errno;
  ::close(descriptor);
  if (isWritten && ::rename(temporary.c_str(), file.c_str()) == 0) return;

  if (!isWritten) errno = writeError;
  const int reason = errno;
  ::unlink(temporary.c_str());
  errno = reason;
  Fail(file, "write");
}

PrivateFileLock::PrivateFileLock(const std::filesystem::path& file) {
  const std::string name = file.string() + ".lock";
  const int descriptor = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) Fail(name, "open");
  int result;
  do {
    result = ::flock(descriptor, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    const int reason = errno;
    ::close(descriptor);
    errno = reason;
    Fail(name, "lock");
  }
  handle_ = descriptor;
}

PrivateFileLock::~PrivateFileLock() {
  ::close(static_cast<int>(handle_));
}

std::string FileStamp(const std::filesystem::path& file) {
  struct stat status {};
  if (::stat(file.c_str(), &status) != 0) return {};
  return std::to_string(status.st_ino) + ":" + std::to_string(status.st_size) + ":" +
         std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}
