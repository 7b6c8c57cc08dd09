#include <cstddef>
#include <filesystem>
#include <string>
#include <utility>

#include "agent/libZel/boundary.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/file_system.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/open_file.h"
#include "agent/libZel/outcome.h"
#include "agent/libZel/per_thread.h"
#include "agent/libZel/text_file.h"
#include "agent/libZel/wtf8.h"
#include "libZel/text.h"

using file_system::Kind;

namespace {

constexpr size_t kMaxBytes = size_t{64} << 20;

// What this thread tried to read last without success; empty without that. Callers save what they
// have changed without asking whether it was read.
std::filesystem::path& FailedLoad() {
  static PerThread<std::filesystem::path> failed;
  return failed.Get();
}

Outcome LoadText(const std::filesystem::path& path, ZelString* text) {
  std::string bytes;
  const Outcome outcome = ReadTextFile(path, &bytes, kMaxBytes);
  if (outcome) *text = ZelString(IsUtf8(bytes) ? std::move(bytes) : EscapeBytes(bytes));
  return outcome;
}

Outcome WriteNew(const std::filesystem::path& path, const std::string& bytes) {
  file_system::PendingFile file;
  int error = file.Create(path);
  if (error == 0) error = file.Write(bytes.data(), bytes.size());
  if (error == 0) error = file.Commit(false);
  return OutcomeOf(error);
}

Outcome WriteOver(const std::filesystem::path& path, const std::string& bytes) {
  if (file_system::IsReadOnly(path)) return FailedBecause("the file is read-only");
  file_system::PendingFile file;
  int error = file.Create(path);
  if (error == 0) error = file.WriteInPlaceOf(path, bytes.data(), bytes.size());
  if (error == 0) error = file.Commit(true);
  return OutcomeOf(error);
}

Outcome Save(const NativePath& native, const ZelString& text) {
  if (!native) return InvalidName(native);
  if (native.path.native() == FailedLoad().native()) {
    return FailedBecause("what is there could not be read before");
  }
  std::filesystem::path target = native.path;
  Outcome outcome = FollowLinks(&target);
  if (outcome) outcome = CheckDestination(target, nullptr, true);
  if (!outcome) return outcome;

  const std::string bytes = UnescapeBytes(text.Utf8());
  const bool isNew = file_system::LookAtEntry(target).kind == Kind::kMissing;
  return isNew ? WriteNew(target, bytes) : WriteOver(target, bytes);
}

}  // namespace

bool LoadFileToString(const ZelString& path, ZelString* text) {
  return Guarded("LoadFileToString", false, [&] {
    const NativePath native = ToNativeFile(path);
    // It has failed until it has succeeded.
    std::filesystem::path before = std::exchange(FailedLoad(), native.path);
    const Outcome outcome = native ? LoadText(native.path, text) : InvalidName(native);
    if (outcome) {
      if (before.native() == native.path.native()) before.clear();
      FailedLoad() = std::move(before);
      return true;
    }
    LibraryLog().WarningWithNL("reading of %S failed: %S", ForLog(path), outcome.reason);
    return false;
  });
}

bool SaveFileFromString(const ZelString& path, const ZelString& text) {
  return Guarded("SaveFileFromString", false, [&] {
    const Outcome outcome = Save(ToNativeFile(path), text);
    if (outcome) return true;
    LibraryLog().WarningWithNL("writing of %S failed: %S", ForLog(path), outcome.reason);
    return false;
  });
}
