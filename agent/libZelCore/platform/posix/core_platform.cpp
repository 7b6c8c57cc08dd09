#include "agent/libZelCore/core_platform.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <tuple>

#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/system_error_text.h"
#include "agent/windows_api/code_page.h"

namespace core_platform {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const char* step, const fs::path& file) {
  throw std::runtime_error(std::string("cannot ") + step + " " + file.string() + ": " +
                           SystemErrorText(errno));
}

int Open(const fs::path& file, int flags) {
  const int descriptor = ::open(file.c_str(), flags | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) Fail("open", file);
  return descriptor;
}

}  // namespace

const char kSeparator = '/';

fs::path ExecutablePath() {
  std::error_code error;
  return fs::read_symlink("/proc/self/exe", error);
}

void* ApplicationHandle() {
  return nullptr;
}

std::string SystemLanguage() {
  for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* const value = std::getenv(name);
    if (value && *value) return value;
  }
  for (const char* const file : {"/etc/locale.conf", "/etc/default/locale"}) {
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);) {
      if (!line.starts_with("LANG=")) continue;
      line.erase(0, 5);
      std::erase(line, '"');
      return line;
    }
  }
  return {};
}

std::string DefaultProxyPipe() {
  std::string newest;
  timespec newestTime{};
  std::error_code error;
  for (const fs::directory_entry& user : fs::directory_iterator("/run/user", error)) {
    struct stat directory {};
    struct stat socket {};
    const fs::path path = user.path() / "zelproxy.sock";
    if (::lstat(user.path().c_str(), &directory) != 0 || !S_ISDIR(directory.st_mode)) continue;
    if (user.path().filename() != std::to_string(directory.st_uid)) continue;
    if (::lstat(path.c_str(), &socket) != 0 || !S_ISSOCK(socket.st_mode)) continue;
    if (socket.st_uid != directory.st_uid) continue;
    const bool isNewer = std::tie(socket.st_mtim.tv_sec, socket.st_mtim.tv_nsec) >
                         std::tie(newestTime.tv_sec, newestTime.tv_nsec);
    if (!newest.empty() && !isNewer) continue;
    newest = path;
    newestTime = socket.st_mtim;
  }
  return newest;
}

std::string HostName() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

bool IsKnownCodePage(unsigned codePage) {
  return ::IsKnownCodePage(codePage);
}

bool SetSystemCodePage(unsigned codePage) {
  return ::SetSystemCodePage(codePage);
}

namespace {

constexpr int kLargestHeapBlockBytes = 32 << 20;  // the most that mallopt takes
constexpr int kKeptAtTheEndBytes = 4 * kLargestHeapBlockBytes;

}  // namespace

void KeepFreeMemory() {
  mallopt(M_MMAP_THRESHOLD, kLargestHeapBlockBytes);
  mallopt(M_TRIM_THRESHOLD, kKeptAtTheEndBytes);
}

void ReturnFreeMemory() {
  malloc_trim(0);
  ReturnFreeMemoryOfThread();
}

// malloc_trim leaves alone what is free at the end of any heap but the first one. That goes when a
// block is freed in the heap, which is that of this thread, and is large enough for the allocator
// to look.
void ReturnFreeMemoryOfThread() {
  static std::mutex mutex;  // the threshold is that of all threads
  const std::lock_guard lock(mutex);
  constexpr size_t kBytes = 128 * 1024;
  mallopt(M_TRIM_THRESHOLD, 0);
  void* volatile block = std::malloc(kBytes);  // volatile: the pair is not to be left out
  std::free(block);
  mallopt(M_TRIM_THRESHOLD, kKeptAtTheEndBytes);
}

bool IsAdministrator() {
  return ::geteuid() == 0;
}

bool OthersMayRead(const fs::path& file) {
  struct stat status {};
  return ::stat(file.c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
}

bool MakePrivateDirectory(const fs::path& directory) {
  if (::mkdir(directory.c_str(), 0700) == 0) return true;
  if (errno == ENOENT && directory.has_relative_path()) {
    MakePrivateDirectory(directory.parent_path());
    if (::mkdir(directory.c_str(), 0700) == 0) return true;
  }
  const int error = errno;
  if (error == EEXIST && fs::is_directory(directory)) return false;
  errno = error == EEXIST ? ENOTDIR : error;
  Fail("make the directory", directory);
}

AppendFile::AppendFile(const fs::path& path) : handle_(Open(path, O_WRONLY | O_APPEND)) {}

AppendFile::~AppendFile() {
  ::close(static_cast<int>(handle_));
}

int AppendFile::Append(std::string_view bytes, bool* isWhole) {
  const int descriptor = static_cast<int>(handle_);
  *isWhole = true;
  const ssize_t written =
      Uninterrupted([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
  if (written == static_cast<ssize_t>(bytes.size())) return 0;

  const int error = written < 0 ? errno : ENOSPC;
  if (written > 0) {
    struct stat status {};
    *isWhole =
        ::fstat(descriptor, &status) == 0 && ::ftruncate(descriptor, status.st_size - written) == 0;
  }
  return error;
}

InstanceLock::InstanceLock(const fs::path& file) : handle_(Open(file, O_RDWR)) {
  const int descriptor = static_cast<int>(handle_);
  if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) return;
  const int error = errno;
  ::close(descriptor);
  if (error == EWOULDBLOCK) {
    throw std::runtime_error("another agent is running in this home directory (it holds " +
                             file.string() + ")");
  }
  errno = error;
  Fail("lock", file);
}

InstanceLock::~InstanceLock() {
  ::close(static_cast<int>(handle_));
}

}  // namespace core_platform
