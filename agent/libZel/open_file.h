#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

// Files that stay open between calls, and what a new file takes over from the one it replaces.
// Functions that return an error number return 0 on success, else the system's (errno or
// GetLastError). They throw only for want of memory.
namespace file_system {

/// Owner, permissions and further attributes of a file, in the platform's own form.
struct Security;

/// Those of the regular file that `path` leads to; null when they cannot be told.
std::shared_ptr<const Security> SecurityOf(const std::filesystem::path& path);

/// A regular file, open. Programs that the agent starts do not inherit it. For one thread at once.
class OpenFile {
 public:
  OpenFile();
  ~OpenFile();
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  /// Opens a file for reading: pipes, devices and directories are an error, and none is waited for.
  int Open(const std::filesystem::path& path);
  /// Creates a file, open for writing through to the disk; an existing entry is an error. With
  /// `security`, as much of it as the system lets the agent give is in force before this returns,
  /// and until then nobody else may read the file.
  int Create(const std::filesystem::path& path, const Security* security);
  /// Reads up to `sizeBytes` bytes, as many as one read gives. 0 in `*count` is the end.
  int Read(char* buffer, uint32_t sizeBytes, uint32_t* count);
  /// Appends all the bytes, or none: what a failed write has added is cut off again.
  int Write(const char* bytes, uint32_t sizeBytes);
  /// Some systems report a failed write only here.
  int Close();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

/// The error of a file that is marked read-only.
extern const int kErrorReadOnly;

/// Whether the entry is a file marked read-only (Windows), or one that nobody may write. Links are
/// not.
bool IsReadOnly(const std::filesystem::path& path);

/// `RemoveFile` whose name is free for a new file at once, even while the deleted one is open.
int RemoveFileNow(const std::filesystem::path& path, bool force);

/// Whether the error says that the disk, or what the agent may use of it, is full.
bool IsDiskFull(int error);

/// Makes an existing `destination` a second link to the regular file that `source` leads to.
int ReplaceByLink(const std::filesystem::path& source, const std::filesystem::path& destination);

}  // namespace file_system
