#include "agent/libZelCore/private_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/system_error_text.h"

namespace {

[[noreturn]] void FailAt(const std::filesystem::path& file, const char* step, int error) {
  throw std::runtime_error(std::string("cannot ") + step + " " + file.string() + ": " +
                           SystemErrorText(error));
}

}  // namespace

void WritePrivateFile(const std::filesystem::path& file, std::string_view content) {
  std::string temporary = file.string() + ".XXXXXX";
  UniqueFd descriptor(::mkstemp(temporary.data()));  // created with mode 0600
  if (!descriptor) FailAt(file, "create a file beside", errno);

  int error = WriteAll(descriptor.Get(), content.data(), content.size());
  if (error == 0 && ::fsync(descriptor.Get()) != 0) error = errno;
  descriptor.Close();
  if (error == 0 && ::rename(temporary.c_str(), file.c_str()) != 0) error = errno;
  if (error == 0) return;
  ::unlink(temporary.c_str());
  FailAt(file, "write", error);
}

PrivateFileLock::PrivateFileLock(const std::filesystem::path& file) {
  const std::string name = file.string() + ".lock";
  UniqueFd descriptor(::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!descriptor) FailAt(name, "open", errno);
  if (Uninterrupted([&] { return ::flock(descriptor.Get(), LOCK_EX); }) != 0) {
    FailAt(name, "lock", errno);
  }
  handle_ = descriptor.Release();
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
