#include "agent/service/installation_access.h"

#include <sys/stat.h>

#include <cerrno>
#include <list>
#include <system_error>

#include "agent/libZel/system_error_text.h"
#include "agent/libZelCore/core_platform.h"

namespace {

namespace fs = std::filesystem;

constexpr int kMostLinks = 40;  // as many as the system follows

std::string Octal(mode_t mode) {
  std::string text;
  for (int shift = 9; shift >= 0; shift -= 3) text += static_cast<char>('0' + (mode >> shift & 7));
  return text;
}

/// A directory in which everybody may make entries but change none of others, such as /tmp.
bool IsShared(const struct stat& status) {
  return S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
}

std::string EntryWeakness(const fs::path& entry, const struct stat& status, bool isParent) {
  if (status.st_uid != 0)
    return entry.string() + " belongs to the account " + std::to_string(status.st_uid) +
           ", not to root";
  // The mode of a link means nothing. With an access list the group's bits are the most that any
  // account of the list gets, so a group is never let in, be it root's.
  const bool isWritable = !S_ISLNK(status.st_mode) && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (!isWritable || (isParent && IsShared(status))) return {};
  return entry.string() + " can be written by others than root (mode " +
         Octal(status.st_mode & 07777) + ")";
}

/// The names on the way to a path, of which links add more.
class Way {
 public:
  explicit Way(const fs::path& path) { GoFirst(path); }

  std::string Walk() {
    struct stat root {};
    if (::stat("/", &root) != 0) return Missing("/", errno);
    std::string rootWeakness = EntryWeakness("/", root, true);
    if (!rootWeakness.empty()) return rootWeakness;
    while (!names_.empty()) {
      const fs::path name = names_.front();
      names_.pop_front();
      const std::string weakness = Step(name);
      if (!weakness.empty() || isOver_) return weakness;
    }
    return {};
  }

 private:
  void GoFirst(const fs::path& path) {
    auto next = names_.begin();
    for (const fs::path& name : path.relative_path()) {
      // Without those that name nothing the last one is the entry that the path is about.
      if (!name.empty() && name != ".") names_.insert(next, name);
    }
  }

  std::string Step(const fs::path& name) {
    if (name == "..") {
      place_ = place_.parent_path();
      return {};
    }
    const fs::path entry = place_ / name;
    struct stat status {};
    if (::lstat(entry.c_str(), &status) != 0) return Missing(entry, errno);
    const std::string weakness = EntryWeakness(entry, status, !names_.empty());
    if (!weakness.empty()) return weakness;
    if (S_ISLNK(status.st_mode)) return Follow(entry);
    place_ = entry;
    return {};
  }

  std::string Missing(const fs::path& entry, int error) {
    isOver_ = true;
    if (error != ENOENT) return entry.string() + " cannot be looked at: " + SystemErrorText(error);
    struct stat above {};
    const bool isSafe = ::lstat(place_.c_str(), &above) == 0 && !IsShared(above);
    return isSafe ? std::string() : entry.string() + " is missing, and anybody could make it";
  }

  std::string Follow(const fs::path& link) {
    std::error_code error;
    const fs::path target = fs::read_symlink(link, error);
    if (error || ++links_ > kMostLinks) return link.string() + " is a link that leads nowhere";
    if (target.is_absolute()) place_ = "/";
    GoFirst(target);
    return {};
  }

  std::list<fs::path> names_;
  fs::path place_ = "/";
  bool isOver_ = false;
  int links_ = 0;
};

}  // namespace

bool HasAdministratorsRights() {
  return core_platform::IsAdministrator();
}

std::string FindWeakness(const fs::path& path, PathUse use) {
  std::string weakness = Way(fs::absolute(path)).Walk();
  if (!weakness.empty() || use != PathUse::kSecret) return weakness;
  if (core_platform::OthersMayRead(path))
    return path.string() + " holds a secret and can be read by others than root";
  return {};
}
