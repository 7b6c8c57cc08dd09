#include "agent/libZel/process_table.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <string>
#include <string_view>
#include <unordered_map>

#include "agent/libZel/platform/posix/byte_names.h"
#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/directory_stream.h"
#include "agent/libZel/platform/posix/process_files.h"
#include "agent/libZel/platform/posix/unique_fd.h"

// The header of glibc 2.36 forgets that it may be read as C++.
extern "C" {
#include <sys/pidfd.h>
}

namespace process_table {
namespace {

constexpr int kEndTimeoutMs = 1000;
// The first process of the system, or of the container that this one runs in.
constexpr uint32_t kFirstProcess = 1;

// 0 when `name` is no identifier.
uint32_t IdentifierOf(std::string_view name) {
  uint32_t id = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
  return error == std::errc() && end == name.data() + name.size() ? id : 0;
}

// A path below /proc, made without memory of its own.
class ProcessPath {
 public:
  // Longer than ten digits and the longest name below.
  static constexpr size_t kSize = 32;

  explicit ProcessPath(uint32_t id) {
    end_ = std::to_chars(text_.data(), text_.data() + kSize, id).ptr;
  }
  const char* Directory() {
    *end_ = '\0';
    return text_.data();
  }
  /// `name` begins with a slash.
  const char* File(std::string_view name) {
    *std::ranges::copy(name, end_).out = '\0';
    return text_.data();
  }

 private:
  std::array<char, kSize> text_;
  char* end_;
};

// The names of accounts, for one listing: accounts may change until the next.
class Owners {
 public:
  const ZelString& NameOf(uid_t user) {
    const auto [place, isNew] = names_.try_emplace(user);
    if (isNew) place->second = LookUp(user);
    return place->second;
  }

 private:
  ZelString LookUp(uid_t user) {
    constexpr size_t kLargestBuffer = 1 << 20;
    if (buffer_.empty()) buffer_.resize(1024);
    passwd entry;
    passwd* found = nullptr;
    int error;
    while ((error = getpwuid_r(user, &entry, buffer_.data(), buffer_.size(), &found)) == ERANGE &&
           buffer_.size() < kLargestBuffer) {
      buffer_.resize(buffer_.size() * 2);
    }
    if (error == 0 && found != nullptr) return TextOfBytes(entry.pw_name);
    return ZelString::FromInt64(user);
  }

  std::unordered_map<uid_t, ZelString> names_;
  std::string buffer_;
};

// What fits into `buffer` of a file below `directory`; empty when it cannot be read. The kernel
// gives a whole file of this size in one read.
template <size_t kSize>
std::string_view ReadStart(int directory, const char* path, std::array<char, kSize>* buffer) {
  const UniqueFd fd(openat(directory, path, O_RDONLY | O_CLOEXEC));
  if (!fd) return {};
  const ssize_t count = read(fd.Get(), buffer->data(), kSize);
  return {buffer->data(), count > 0 ? static_cast<size_t>(count) : 0};
}

// Reads all processes with one set of buffers.
class Reader {
 public:
  explicit Reader(int directory) : directory_(directory) {}

  void Read(uint32_t id, Entry* entry) {
    entry->info.id = id;
    ProcessPath path(id);
    const ProcessStat stat = ParseProcessStat(ReadStart(directory_, path.File("/stat"), &buffer_));
    entry->info.parentId = stat.parentId;
    entry->info.threadCount = stat.threadCount;
    entry->info.virtualBytes = stat.virtualBytes;
    entry->info.usedBytes = stat.residentPages * pageBytes_;
    entry->startTime = stat.startTicks;
    entry->cpuMicroseconds = stat.cpuTicks * tickMicroseconds_;

    const std::string_view executable = stat.virtualBytes > 0 ? Executable(&path) : "";
    entry->info.path = TextOfBytes(executable);
    entry->info.name = TextOfBytes(
        executable.empty() ? stat.command : executable.substr(executable.rfind('/') + 1));

    // The directory belongs to the process's user; its files may be root's.
    struct stat info;
    if (fstatat(directory_, path.Directory(), &info, 0) == 0) {
      entry->info.owner = owners_.NameOf(info.st_uid);
    }
  }

 private:
  std::string_view Executable(ProcessPath* path) {
    const ssize_t length = readlinkat(directory_, path->File("/exe"), link_.data(), link_.size());
    if (length <= 0) return {};
    return ExecutableOf({link_.data(), static_cast<size_t>(length)});
  }

  const int directory_;
  const uint64_t pageBytes_ = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  const uint64_t tickMicroseconds_ = 1'000'000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  Owners owners_;
  std::array<char, 2048> buffer_;
  std::array<char, PATH_MAX> link_;
};

// What a file of /proc/ID begins with, as `read` understands it.
template <typename Read>
auto ReadOf(uint32_t id, const char* file, Read read) {
  const UniqueFd directory(open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC));
  std::array<char, 4096> buffer;
  return read(ReadStart(directory.Get(), ProcessPath(id).File(file), &buffer));
}

bool IsThread(uint32_t id) {
  const uint32_t process = ReadOf(id, "/status", ThreadGroupOf);
  return process != 0 && process != id;
}

bool IsKernelThread(uint32_t id) {
  return ReadOf(id, "/stat",
                [](std::string_view line) { return ParseProcessStat(line).isKernelThread; });
}

Outcome NotEnded(uint32_t id, int error) {
  return IsThread(id) ? FailedBecause("it is a thread, not a process", EINVAL) : OutcomeOf(error);
}

bool HasEnded(int handle, int timeoutMs) {
  pollfd waited{handle, POLLIN, 0};
  return Uninterrupted([&] { return poll(&waited, 1, timeoutMs); }) > 0;
}

}  // namespace

Outcome Read(std::vector<Entry>* entries) {
  const DirectoryStream stream(opendir("/proc"));
  if (!stream) return OutcomeOf(errno);
  Reader reader(dirfd(stream.get()));
  while (const dirent* const found = readdir(stream.get())) {
    const uint32_t id = IdentifierOf(found->d_name);
    if (id != 0) reader.Read(id, &entries->emplace_back());
  }
  return entries->empty() ? FailedBecause("/proc is empty") : Outcome{};
}

uint32_t ProcessorCount() {
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  return count > 0 ? static_cast<uint32_t>(count) : 1;
}

uint32_t OwnIdentifier() {
  return static_cast<uint32_t>(getpid());
}

Outcome EndWithoutHandle(uint32_t id) {
  if (IsThread(id)) return NotEnded(id, EINVAL);
  return OutcomeOf(kill(static_cast<pid_t>(id), SIGKILL) == 0 ? 0 : errno);
}

Outcome End(uint32_t id) {
  // The system calls would read larger ones as negative: groups of processes.
  if (id > INT_MAX) return OutcomeOf(ESRCH);
  // The kernel takes the signal for these and drops it: there is nothing to wait for.
  if (id == kFirstProcess) return FailedBecause("the first process cannot be ended", EPERM);
  if (IsKernelThread(id)) return FailedBecause("it belongs to the kernel", EPERM);
  // A handle goes on to mean the same process when the identifier is given to another. There are
  // none for threads.
  const UniqueFd handle(pidfd_open(static_cast<pid_t>(id), 0));
  if (!handle && (errno == ENOSYS || errno == EPERM)) return EndWithoutHandle(id);
  if (!handle) return NotEnded(id, errno);
  // Its parent may not have asked for its end yet.
  if (HasEnded(handle.Get(), 0)) return FailedBecause("it has ended already");
  if (pidfd_send_signal(handle.Get(), SIGKILL, nullptr, 0) != 0) return OutcomeOf(errno);
  if (HasEnded(handle.Get(), kEndTimeoutMs)) return {};
  return FailedBecause("it was told to end, but has not after a second");
}

}  // namespace process_table
