#include <filesystem>
#include <optional>
#include <utility>
#include <vector>

#include "agent/libZel/boundary.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/file_system.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/outcome.h"
#include "agent/libZel/path_parts.h"
#include "agent/libZel/per_thread.h"
#include "libZel/file.h"
#include "libZel/path.h"

namespace {

using file_system::Kind;
using file_system::Status;

// A rename that this thread has just done.
struct DoneRename {
  ZelString source;
  ZelString destination;
  file_system::Identity directory;
};

// Taken out and, after success, put back by each DirRename: only the very next call finds it.
std::optional<DoneRename>& LastRename() {
  static PerThread<std::optional<DoneRename>> last;
  return last.Get();
}

Outcome NotADirectory() {
  return FailedBecause("it is not a directory");
}

bool IsRoot(const ZelString& path) {
  const ZelString full = CompletePath(path);
  return ParsePath(full.Utf8()).names.empty();
}

Outcome CreateDirectoryAt(const ZelString& path) {
  const NativePath native = ToNativePath(path);
  if (!native) return InvalidName(native);
  return OutcomeOf(file_system::MakeDirectory(native.path));
}

// Creates a directory with its missing parents.
Outcome CreateWithParents(const std::filesystem::path& path) {
  using Text = std::filesystem::path::string_type;
  const Text& text = path.native();
  constexpr auto kSeparator = std::filesystem::path::preferred_separator;
  // Up to the deepest parent that is there ...
  std::vector<size_t> missing;
  size_t end = text.size();
  for (;;) {
    const std::filesystem::path level(Text(text, 0, end));
    if (file_system::Look(level).kind == file_system::Kind::kDirectory) break;
    missing.push_back(end);
    end = text.rfind(kSeparator, end - 1);
    if (end == Text::npos || end == 0) break;
  }
  // ... and down again. Somebody else may create the same directories meanwhile.
  for (; !missing.empty(); missing.pop_back()) {
    const std::filesystem::path level(Text(text, 0, missing.back()));
    const int error = file_system::MakeDirectory(level);
    if (error == 0) continue;
    if (file_system::Look(level).kind == file_system::Kind::kDirectory) continue;
    return OutcomeOf(error);
  }
  return {};
}

Outcome Rename(const ZelString& source, const ZelString& destination) {
  const std::optional<DoneRename> last = std::exchange(LastRename(), std::nullopt);
  const NativePath from = ToNativePath(source);
  if (!from) return InvalidName(from);
  const NativePath to = ToNativePath(destination);
  if (!to) return InvalidName(to);

  if (last && last->source == source && last->destination == destination) {
    const Status renamed = file_system::LookAtEntry(to.path);
    if (renamed.kind != Kind::kMissing && renamed.identity == last->directory) return {};
  }

  const Status status = file_system::Look(from.path);
  if (status.kind == Kind::kMissing) return OutcomeOf(status.error);
  if (status.kind != Kind::kDirectory) return NotADirectory();
  if (from.path.native() == to.path.native()) return {};
  // Links are renamed themselves.
  const Status entry = file_system::LookAtEntry(from.path);
  const int error = file_system::RenameDirectory(from.path, to.path);
  if (error == 0) LastRename() = DoneRename{source, destination, entry.identity};
  return OutcomeOf(error);
}

Outcome DeleteDirectoryAt(const ZelString& path, bool recursive, bool keepRoot) {
  const NativePath native = ToNativePath(path);
  if (!native) return InvalidName(native);
  if (IsRoot(path)) return FailedBecause("a root is not deleted");
  const Status status = file_system::Look(native.path);
  if (status.kind == Kind::kMissing) return OutcomeOf(status.error);
  if (status.kind != Kind::kDirectory) return NotADirectory();

  if (file_system::LookAtEntry(native.path).isLink) {
    if (keepRoot) return FailedBecause("it is a link, and links are not followed");
    return OutcomeOf(file_system::DeleteDirectoryLink(native.path));
  }
  if (recursive) return OutcomeOf(file_system::DeleteTree(native.path, keepRoot));
  return keepRoot ? Outcome{} : OutcomeOf(file_system::DeleteDirectory(native.path));
}

}  // namespace

int DirExists(const ZelString& path) {
  return Guarded("DirExists", 0, [&] {
    const NativePath native = ToNativePath(path);
    return native && file_system::Look(native.path).kind == Kind::kDirectory ? 1 : 0;
  });
}

int DirCreate(const ZelString& path) {
  return Guarded("DirCreate", 0, [&] {
    const Outcome outcome = CreateDirectoryAt(path);
    if (outcome) return 1;
    LibraryLog().WarningWithNL("creation of directory %S failed: %S", path, outcome.reason);
    return 0;
  });
}

int DirRename(const ZelString& source, const ZelString& destination) {
  return Guarded("DirRename", 0, [&] {
    const Outcome outcome = Rename(source, destination);
    if (outcome) return 1;
    LibraryLog().WarningWithNL("rename of directory %S to %S failed: %S", source, destination,
                               outcome.reason);
    return 0;
  });
}

int DirDelete(const ZelString& path, int recursive, int keepRoot) {
  return Guarded("DirDelete", 0, [&] {
    const Outcome outcome = DeleteDirectoryAt(path, recursive != 0, keepRoot != 0);
    if (outcome) return 1;
    LibraryLog().WarningWithNL("deletion of directory %S failed: %S", path, outcome.reason);
    return 0;
  });
}

bool PathCreate(const ZelString& path) {
  return Guarded("PathCreate", false, [&] {
    const NativePath native = ToNativePath(path);
    const Outcome outcome = native ? CreateWithParents(native.path) : InvalidName(native);
    if (outcome) return true;
    LibraryLog().WarningWithNL("creation of path %S failed: %S", path, outcome.reason);
    return false;
  });
}
