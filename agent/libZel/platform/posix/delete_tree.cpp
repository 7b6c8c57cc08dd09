#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "agent/libZel/file_system.h"
#include "agent/libZel/platform/posix/directory_stream.h"
#include "agent/libZel/platform/posix/unique_fd.h"

namespace file_system {
namespace {

// So many directories on the way down are held open; those above are opened again on the way up.
constexpr size_t kMaxOpenDirectories = 32;

// One directory on the way from the root of the tree to where the work is.
struct Level {
  std::string name;
  Identity identity;
  DirectoryStream directory;
  bool hasDeletedSinceRewind = false;
};

// Deletes from the leaves up. Every step starts at an open directory and names one entry in it, so
// nothing that is moved or replaced by a link meanwhile can lead out of the tree.
class TreeDeletion {
 public:
  int Run(int parent, const std::string& name, bool keepRoot) {
    int error = Enter(parent, name);
    while (error == 0 && !levels_.empty()) {
      errno = 0;
      const dirent* entry = readdir(levels_.back().directory.get());
      if (entry != nullptr) {
        error = Delete(*entry);
      } else if (errno != 0) {
        error = errno;
      } else {
        error = levels_.size() > 1 ? Leave() : Finish(parent, keepRoot);
      }
    }
    return error;
  }

 private:
  int Enter(int parent, const std::string& name) {
    UniqueFd fd(
        openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd) return errno;
    Level level;
    level.name = name;
    const int error = Open(std::move(fd), &level);
    if (error != 0) return error;
    levels_.push_back(std::move(level));
    if (levels_.size() > kMaxOpenDirectories) {
      levels_[levels_.size() - 1 - kMaxOpenDirectories].directory.reset();
    }
    return 0;
  }

  static int Open(UniqueFd fd, Level* level) {
    struct stat info;
    if (fstat(fd.Get(), &info) != 0) return errno;
    level->identity = {info.st_dev, info.st_ino};
    level->directory.reset(fdopendir(fd.Get()));
    if (!level->directory) return errno;
    fd.Release();
    return 0;
  }

  int Delete(const dirent& entry) {
    const std::string name = entry.d_name;
    if (name == "." || name == "..") return 0;
    Level& level = levels_.back();
    const int fd = dirfd(level.directory.get());
    if (entry.d_type == DT_DIR) {
      const int error = Enter(fd, name);
      // ENOTDIR, ELOOP: it is no directory any more. EACCES: it may be empty all the same.
      if (error == EACCES && unlinkat(fd, name.c_str(), AT_REMOVEDIR) == 0) {
        level.hasDeletedSinceRewind = true;
        return 0;
      }
      if (error != ENOTDIR && error != ELOOP) return error;
    }
    level.hasDeletedSinceRewind = true;
    if (unlinkat(fd, name.c_str(), 0) == 0 || errno == ENOENT) return 0;
    // The file system did not tell the type.
    return errno == EISDIR ? Enter(fd, name) : errno;
  }

  // Back to the parent, and the directory that was left goes.
  int Leave() {
    Level& parent = levels_[levels_.size() - 2];
    if (!parent.directory) {
      const int error = Reopen(&parent);
      if (error != 0) return error;
    }
    const int error = RemoveEmpty(dirfd(parent.directory.get()));
    if (error == 0) parent.hasDeletedSinceRewind = true;
    return error;
  }

  int Finish(int parent, bool keepRoot) {
    if (!keepRoot) return RemoveEmpty(parent);
    if (!LookAgain()) levels_.pop_back();
    return 0;
  }

  int RemoveEmpty(int parent) {
    Level& level = levels_.back();
    if (unlinkat(parent, level.name.c_str(), AT_REMOVEDIR) == 0) {
      levels_.pop_back();
      return 0;
    }
    const int error = errno;
    return (error == ENOTEMPTY || error == EEXIST) && LookAgain() ? 0 : error;
  }

  // Reading while deleting may pass over entries: reads once more as long as that helps.
  bool LookAgain() {
    Level& level = levels_.back();
    if (!level.hasDeletedSinceRewind) return false;
    level.hasDeletedSinceRewind = false;
    rewinddir(level.directory.get());
    return true;
  }

  // The parent of a directory that was moved meanwhile is another one: that ends the work.
  int Reopen(Level* parent) {
    const Identity expected = parent->identity;
    UniqueFd fd(openat(dirfd(levels_.back().directory.get()), "..",
                       O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return errno;
    const int error = Open(std::move(fd), parent);
    if (error != 0) return error;
    return parent->identity == expected ? 0 : ESTALE;
  }

  std::vector<Level> levels_;
};

}  // namespace

int DeleteTree(const std::filesystem::path& path, bool keepRoot) {
  const UniqueFd parent(open(path.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!parent) return errno;
  return TreeDeletion().Run(parent.Get(), path.filename().native(), keepRoot);
}

}  // namespace file_system
