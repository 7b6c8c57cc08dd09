#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>

#include "libZel/string.h"

// Calls on native paths, as far as the file functions need them. Functions that
// return an error number return 0 on success, else the system's (errno or GetLastError). They throw
// only for want of memory.
namespace file_system {

enum class Kind {
  kMissing,
  kFile,
  kDirectory,
  /// A device, pipe or socket.
  kOther
};

/// What tells one file from all others while both exist.
struct Identity {
  uint64_t volume = 0;
  uint64_t file = 0;
  friend bool operator==(const Identity&, const Identity&) = default;
};

struct Status {
  Kind kind = Kind::kMissing;
  /// Why `kind` is kMissing.
  int error = 0;
  uint64_t sizeBytes = 0;
  Identity identity;
  /// The entry itself is a link; only `LookAtEntry` says so. The rest then describes the link.
  bool isLink = false;
};

// Errors that the callers of this file find out themselves.
extern const int kErrorNotFound;
extern const int kErrorExists;
extern const int kErrorIsDirectory;
extern const int kErrorNotRegular;
extern const int kErrorSameFile;
extern const int kErrorInvalidName;
extern const int kErrorOtherVolume;

/// The system's text for one of its error numbers.
ZelString ErrorText(int error);

/// What `path` leads to, links followed.
Status Look(const std::filesystem::path& path);
/// What stands under `path`, a link being a link.
Status LookAtEntry(const std::filesystem::path& path);

/// A new file beside its destination, under a name of its own until `Commit`; without that the
/// destructor removes it.
class PendingFile {
 public:
  PendingFile();
  ~PendingFile();
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  /// Creates the file, empty. `destination` need not exist, its directory must. Once only.
  int Create(const std::filesystem::path& destination);
  /// From now on `Write` also sees to it that what was written goes to the disk at once and then
  /// leaves the system's cache: for large files that nobody reads soon. They would push everything
  /// else out of the memory, and fresh memory costs more than the disk. Does nothing where the
  /// system has no way to do so.
  void KeepOutOfCache();
  int Write(const void* bytes, size_t count);
  /// Writes at a place of the file; not to be mixed with `Write`.
  int WriteAt(uint64_t offset, const void* bytes, size_t count);
  /// Fills the file with the content of `source`, a regular file, and takes over its modification
  /// time and permissions. Nobody else may read it before that.
  int CopyFrom(const std::filesystem::path& source);
  /// The same with the owner (as far as the agent may give it), all permissions, access control
  /// lists and times of `source`, on the disk when this returns. The file can be written, even
  /// where the source is marked read-only.
  int CloneFrom(const std::filesystem::path& source);
  /// Fills the file with `count` bytes and gives it the owner (as far as the agent may give it),
  /// all permissions and access control lists of `replaced`, on the disk when this returns. Nobody
  /// else may read it before that.
  int WriteInPlaceOf(const std::filesystem::path& replaced, const void* bytes, size_t count);
  /// From now on `Commit` waits until the content and the name are on the disk: for a file that
  /// takes the place of one, or whose only other copy goes then.
  void SurvivePowerCuts();
  /// Sets the modification time, in seconds since 1970 (UTC).
  int SetModified(int64_t unixSeconds);
  /// Gives the file its final name. Without `replace` an existing entry is an error, even one that
  /// appears at the last moment.
  int Commit(bool replace);
  /// Where the content can be read before `Commit`.
  std::filesystem::path Path() const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

/// A directory for files that live as long as a call.
std::filesystem::path TemporaryDirectory();

/// Gives an entry another name on the same volume; an existing `destination` is an error. A link is
/// renamed itself.
int RenameFile(const std::filesystem::path& source, const std::filesystem::path& destination);
int RenameDirectory(const std::filesystem::path& source, const std::filesystem::path& destination);

/// Copies a link as a link: kErrorNotRegular when `source` is none, or this platform cannot.
int CopyLink(const std::filesystem::path& source, const std::filesystem::path& destination);

/// Deletes an entry that is no directory. `force` also deletes one that is marked read-only.
int RemoveFile(const std::filesystem::path& path, bool force);

int MakeDirectory(const std::filesystem::path& path);

/// Deletes what is in a directory (read-only files too) and, unless `keepRoot`, the directory.
/// Links are deleted, never followed, whoever swaps what while this works; memory grows with the
/// depth, open handles do not. Stops at the first failure.
int DeleteTree(const std::filesystem::path& path, bool keepRoot);
/// Deletes an empty directory.
int DeleteDirectory(const std::filesystem::path& path);
/// Deletes a link to a directory.
int DeleteDirectoryLink(const std::filesystem::path& path);

}  // namespace file_system
