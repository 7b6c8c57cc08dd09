#include "agent/libZelCore/canonical_path.h"

#include <sys/stat.h>

#include <cerrno>
#include <deque>
#include <system_error>

#include "agent/libZel/native_path.h"
#include "agent/libZel/system_error_text.h"

namespace {

namespace fs = std::filesystem;

constexpr int kMaxLinks = 40;  // as the system itself allows

CanonicalPath Failed(const fs::path& path, int error) {
  return {{}, path.string() + ": " + SystemErrorText(error)};
}

class Resolver {
 public:
  Resolver(const fs::path& native, bool followsLast) : followsLast_(followsLast) {
    Prepend(native);
  }

  CanonicalPath Resolve() {
    while (!pending_.empty()) {
      const std::string name = std::move(pending_.front());
      pending_.pop_front();
      if (const int error = Step(name)) return Failed(resolved_ / name, error);
    }
    std::string path(FromNativePath(resolved_).Utf8());
    if (path == "/") path.clear();
    return {path, {}};
  }

 private:
  void Prepend(const fs::path& path) {
    const fs::path names = path.relative_path();
    std::deque<std::string> parts;
    for (const fs::path& name : names)
      if (!name.empty() && name != ".") parts.push_back(name.string());
    pending_.insert(pending_.begin(), parts.begin(), parts.end());
    if (path.is_absolute()) resolved_ = "/";
  }

  // 0, or the system's error code.
  int Step(const std::string& name) {
    if (name == "..") {
      resolved_ = resolved_.parent_path();
      return 0;
    }
    const fs::path next = resolved_ / name;
    struct stat status {};
    if (::lstat(next.c_str(), &status) != 0) {
      if (errno != ENOENT && errno != ENOTDIR) return errno;
      resolved_ = next;
      return 0;
    }
    if (!S_ISLNK(status.st_mode) || (pending_.empty() && !followsLast_)) {
      resolved_ = next;
      return 0;
    }
    if (++links_ > kMaxLinks) return ELOOP;
    std::error_code error;
    const fs::path target = fs::read_symlink(next, error);
    if (error) return error.value();
    Prepend(target);
    return 0;
  }

  const bool followsLast_;
  std::deque<std::string> pending_;
  fs::path resolved_ = "/";
  int links_ = 0;
};

}  // namespace

CanonicalPath Canonical(const fs::path& native) {
  return Resolver(native, true).Resolve();
}

CanonicalPath CanonicalEntry(const fs::path& native) {
  return Resolver(native, false).Resolve();
}

std::string FoldCase(std::string_view wtf8) {
  return std::string(wtf8);
}
