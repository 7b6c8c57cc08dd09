#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

/// What the agent core asks of the system beyond the standard library; one implementation in each
/// folder of platform/.
namespace core_platform {

/// '/' or '\'.
extern const char kSeparator;

/// This program's file. Empty when the system does not tell.
std::filesystem::path ExecutablePath();

/// What the system calls this program's code: on Windows its module handle, else null.
void* ApplicationHandle();

/// The language that the system is set to, a tag; empty when it does not tell.
std::string SystemLanguage();

/// Where the user-session proxy of the person at this machine listens when neither the
/// configuration nor the system's list of sessions tells; empty without such a session. Elsewhere
/// than on Windows: the socket "zelproxy.sock" in a user's run-time directory (/run/user/UID),
/// which that user must own; with more than one the newest.
std::string DefaultProxyPipe();

/// The computer's name, UTF-8; empty when the system does not tell.
std::string HostName();

/// Whether the system can convert texts of the code page.
bool IsKnownCodePage(unsigned codePage);

/// Off Windows: what modules take for the system's code page. False, with nothing changed, for one
/// that is not known. On Windows the system's own rules and this does nothing.
bool SetSystemCodePage(unsigned codePage);

/// From now on memory that was freed stays with the process until `ReturnFreeMemory`, where the
/// allocator would fetch it anew for every large block. Call it once, before memory matters.
void KeepFreeMemory();

/// Gives memory that was freed back to the system, where the allocator keeps it otherwise: all of
/// what this thread had, and of what other threads had all but the end of their heaps. Takes about
/// a millisecond for each hundred megabytes.
void ReturnFreeMemory();

/// Gives back the end of this thread's heap. Takes some microseconds.
void ReturnFreeMemoryOfThread();

/// Whether this process may do what ordinary users of the machine may not.
bool IsAdministrator();

/// Whether accounts other than the owner and the administrators may read the file, as far as the
/// system's simple permissions tell.
bool OthersMayRead(const std::filesystem::path& file);

/// Makes the directory, with its parents, so that only the owner (and on Windows the
/// administrators and the system) may enter it. An existing one is left as it is, whoever may enter
/// it, and answers false. Throws std::runtime_error naming it.
bool MakePrivateDirectory(const std::filesystem::path& directory);

/// A file that is only ever appended to, by one process.
class AppendFile {
 public:
  /// Opens or makes it, readable by the owner alone. Throws std::runtime_error naming the file.
  explicit AppendFile(const std::filesystem::path& path);
  ~AppendFile();
  AppendFile(const AppendFile&) = delete;
  AppendFile& operator=(const AppendFile&) = delete;

  /// Appends all bytes in one call of the system. 0, or the system's error code; what was written
  /// in part is then taken back. `isWhole` tells whether that worked.
  int Append(std::string_view bytes, bool* isWhole);

 private:
  std::intptr_t handle_;
};

/// Holds a file locked for this process, so that one agent at a time uses a home directory. The
/// lock ends with the process, however that ends.
class InstanceLock {
 public:
  /// Throws std::runtime_error naming the file: held by another process, or not to be made.
  explicit InstanceLock(const std::filesystem::path& file);
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

 private:
  std::intptr_t handle_;
};

}  // namespace core_platform
