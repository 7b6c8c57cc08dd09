// Files that callers read and write in steps, by handle.

#include <climits>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "agent/libZel/boundary.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/file_system.h"
#include "agent/libZel/open_file.h"
#include "agent/libZel/outcome.h"
#include "agent/libZel/per_thread.h"
#include "libZel/file.h"

namespace {

using file_system::Kind;
using file_system::Status;

constexpr int kNoHandle = -1;
constexpr uint32_t kFailedRead = 0xFFFFFFFF;
constexpr uint32_t kFailedSum = 0xFFFFFFFF;

struct Handle {
  std::mutex mutex;
  file_system::OpenFile file;
  ZelString path;
  bool isOpen = false;
  bool isForWriting = false;
  // Of what FileWrite has answered for this handle.
  uint32_t sum = 0;
  bool hasFailed = false;
};

// Handles are numbers of our own, counted upwards: one that is closed, or was never given out,
// leads to no file, where the system would soon give its number to another.
class HandleTable {
 public:
  int Add(std::shared_ptr<Handle> handle) {
    const std::lock_guard lock(mutex_);
    while (handles_.contains(next_)) Advance();
    handles_.emplace(next_, std::move(handle));
    const int number = next_;
    Advance();
    return number;
  }

  std::shared_ptr<Handle> Find(int number) {
    const std::lock_guard lock(mutex_);
    const auto found = handles_.find(number);
    return found == handles_.end() ? nullptr : found->second;
  }

  std::shared_ptr<Handle> Remove(int number) {
    const std::lock_guard lock(mutex_);
    const auto node = handles_.extract(number);
    return node ? node.mapped() : nullptr;
  }

 private:
  void Advance() { next_ = next_ == INT_MAX ? 1 : next_ + 1; }

  std::mutex mutex_;
  std::map<int, std::shared_ptr<Handle>> handles_;
  int next_ = 1;
};

HandleTable& Handles() {
  // Never destroyed: threads may outlive the library's statics.
  static auto* const table = new HandleTable;
  return *table;
}

// What this thread's next FileCreate gives to a file of the same name.
struct Deleted {
  std::filesystem::path path;
  std::shared_ptr<const file_system::Security> security;
};

Deleted& LastDeleted() {
  static PerThread<Deleted> deleted;
  return deleted.Get();
}

// Throws nothing: what has been done already must be told to the caller.
void LogHandleFailure(const char* what, const ZelString& path, const Outcome& outcome) noexcept {
  Guarded(what, 0, [&] {
    LibraryLog().WarningWithNL("%s of %S failed: %S", what, path, outcome.reason);
    return 0;
  });
}

void LogHandleFailure(const char* what, int handle, const char* reason) noexcept {
  Guarded(what, 0, [&] {
    LibraryLog().WarningWithNL("%s with handle %d failed: %s", what, handle, reason);
    return 0;
  });
}

// Puts a new handle into the table and runs `open` on it; the handle's number, or why there is
// none.
template <typename Operation>
Outcome OpenHandle(const ZelString& path, Operation open, int* number) {
  const NativePath native = ToNativeFile(path);
  if (!native) return InvalidName(native);
  const auto handle = std::make_shared<Handle>();
  handle->path = path;
  // The place in the table comes first, so that no file is made for which there is no place.
  const std::lock_guard lock(handle->mutex);
  *number = Handles().Add(handle);
  const Outcome outcome = open(native.path, handle.get());
  if (outcome) {
    handle->isOpen = true;
  } else {
    Handles().Remove(*number);
  }
  return outcome;
}

Outcome OpenExisting(const std::filesystem::path& path, Handle* handle) {
  const Outcome outcome = CheckSource(file_system::Look(path));
  return outcome ? OutcomeOf(handle->file.Open(path)) : outcome;
}

Outcome OpenNew(const std::filesystem::path& path, Handle* handle) {
  const Deleted deleted = std::exchange(LastDeleted(), Deleted{});
  const bool isSame = deleted.path.native() == path.native();
  handle->isForWriting = true;
  return OutcomeOf(handle->file.Create(path, isSame ? deleted.security.get() : nullptr));
}

uint32_t ReadFrom(Handle* handle, char* buffer, uint32_t sizeBytes) {
  uint32_t count = 0;
  const int error = handle->file.Read(buffer, sizeBytes, &count);
  if (error == 0) return count;
  LogHandleFailure("reading", handle->path, OutcomeOf(error));
  return kFailedRead;
}

uint32_t Write(Handle* handle, const char* bytes, uint32_t sizeBytes) {
  if (handle->hasFailed) return 0;
  const int error = handle->file.Write(bytes, sizeBytes);
  if (error == 0) {
    handle->sum += sizeBytes;
    return sizeBytes;
  }
  handle->hasFailed = true;
  const uint32_t answer = kFailedSum - std::exchange(handle->sum, kFailedSum);
  LogHandleFailure("writing", handle->path, OutcomeOf(error));
  return answer;
}

int CopyContentTo(const std::filesystem::path& source, const std::filesystem::path& destination,
                  bool replace) {
  file_system::PendingFile file;
  int error = file.Create(destination);
  if (error == 0) error = file.CloneFrom(source);
  if (error == 0) error = file.Commit(replace);
  return error;
}

Outcome CopyLocal(const ZelString& source, const ZelString& destination, bool replace) {
  const NativePath from = ToNativeFile(source);
  if (!from) return InvalidName(from);
  const NativePath to = ToNativeFile(destination);
  if (!to) return InvalidName(to);
  const Status status = file_system::Look(from.path);
  Outcome outcome = CheckSource(status);
  if (outcome) outcome = CheckDestination(to.path, &status, replace);
  if (!outcome) return outcome;

  int error = CopyContentTo(from.path, to.path, replace);
  // A link instead of a copy is right only where a file's content is to come back: a new file
  // would be one that nobody can change.
  if (file_system::IsDiskFull(error) && replace &&
      file_system::LookAtEntry(to.path).kind != Kind::kMissing &&
      file_system::ReplaceByLink(from.path, to.path) == 0) {
    error = 0;
  }
  return OutcomeOf(error);
}

Outcome DeleteLocal(const ZelString& path, bool force) {
  LastDeleted() = Deleted{};
  const NativePath native = ToNativeFile(path);
  if (!native) return InvalidName(native);
  const Status status = file_system::LookAtEntry(native.path);
  if (status.kind == Kind::kMissing) return OutcomeOf(status.error);
  if (status.kind == Kind::kDirectory) return OutcomeOf(file_system::kErrorIsDirectory);
  if (!force && file_system::IsReadOnly(native.path)) {
    return FailedBecause("the file is read-only", file_system::kErrorReadOnly);
  }

  Deleted deleted{native.path, file_system::SecurityOf(native.path)};
  const int error = file_system::RemoveFileNow(native.path, force);
  if (error == 0) LastDeleted() = std::move(deleted);
  return OutcomeOf(error);
}

}  // namespace

int FileOpen(const ZelString& path, int /*mode*/) {
  return Guarded("FileOpen", kNoHandle, [&] {
    int handle = kNoHandle;
    const Outcome outcome = OpenHandle(path, OpenExisting, &handle);
    if (outcome) return handle;
    LogHandleFailure("opening", path, outcome);
    return kNoHandle;
  });
}

int FileCreate(const ZelString& path, int /*mode*/) {
  return Guarded("FileCreate", kNoHandle, [&] {
    int handle = kNoHandle;
    const Outcome outcome = OpenHandle(path, OpenNew, &handle);
    if (outcome) return handle;
    LogHandleFailure("creation", path, outcome);
    return kNoHandle;
  });
}

uint32_t FileRead(int handle, char* buffer, uint32_t sizeBytes) {
  return Guarded("FileRead", kFailedRead, [&] {
    if (const auto found = Handles().Find(handle)) {
      const std::lock_guard lock(found->mutex);
      if (found->isOpen && !found->isForWriting) return ReadFrom(found.get(), buffer, sizeBytes);
    }
    LogHandleFailure("reading", handle, "it is not open for reading");
    return kFailedRead;
  });
}

uint32_t FileWrite(int handle, const char* bytes, uint32_t sizeBytes) {
  return Guarded("FileWrite", kFailedSum, [&] {
    if (const auto found = Handles().Find(handle)) {
      const std::lock_guard lock(found->mutex);
      if (found->isOpen && found->isForWriting) return Write(found.get(), bytes, sizeBytes);
    }
    LogHandleFailure("writing", handle, "it is not open for writing");
    return kFailedSum;
  });
}

int FileClose(int handle) {
  return Guarded("FileClose", -1, [&] {
    if (const auto removed = Handles().Remove(handle)) {
      const std::lock_guard lock(removed->mutex);
      removed->isOpen = false;
      const int error = removed->file.Close();
      if (error == 0) return 0;
      LogHandleFailure("closing", removed->path, OutcomeOf(error));
      return -1;
    }
    LogHandleFailure("closing", handle, "it is not open");
    return -1;
  });
}

int FileCopy(const ZelString& source, const ZelString& destination, int failIfExists) {
  return Guarded("FileCopy", -1, [&] {
    const Outcome outcome = CopyLocal(source, destination, failIfExists == 0);
    if (!outcome) {
      LibraryLog().WarningWithNL("copy of %S to %S failed: %S", source, destination,
                                 outcome.reason);
    }
    return outcome.code;
  });
}

int FileDelete(const ZelString& path, int force) {
  return Guarded("FileDelete", -1, [&] {
    const Outcome outcome = DeleteLocal(path, force != 0);
    if (!outcome) LogHandleFailure("deletion", path, outcome);
    return outcome.code;
  });
}
