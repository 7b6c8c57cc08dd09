#include "libZel/file.h"

#include <optional>

#include "agent/libZel/boundary.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/file_system.h"
#include "agent/libZel/http_file.h"
#include "agent/libZel/last_extraction.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/outcome.h"
#include "libZel/url.h"

namespace {

using file_system::Kind;
using file_system::Status;
using Presence = http_file::Properties::Presence;

bool IsUrl(const ZelString& path) {
  return UrlParseInet::CanHandleUrl(path) != 0;
}

// What becomes of the source of a copy.
enum class Source { kStays, kGoes };

Outcome CopyOnDisk(const std::filesystem::path& source, const std::filesystem::path& destination,
                   bool replace, Source fate) {
  const Status status = file_system::Look(source);
  Outcome outcome = CheckSource(status);
  if (outcome) outcome = CheckDestination(destination, &status, replace);
  if (!outcome) return outcome;

  file_system::PendingFile file;
  if (fate == Source::kGoes) file.SurvivePowerCuts();
  int error = file.Create(destination);
  if (error == 0) error = file.CopyFrom(source);
  if (error == 0) error = file.Commit(replace);
  return OutcomeOf(error);
}

Outcome Download(const ZelString& url, const std::filesystem::path& destination, bool replace,
                 Source fate) {
  Outcome outcome = CheckDestination(destination, nullptr, replace);
  if (!outcome) return outcome;

  file_system::PendingFile file;
  if (fate == Source::kGoes) file.SurvivePowerCuts();
  const int error = file.Create(destination);
  if (error != 0) return OutcomeOf(error);
  outcome = http_file::Download(url, &file);
  return outcome ? OutcomeOf(file.Commit(replace)) : outcome;
}

Outcome Upload(const std::filesystem::path& source, const ZelString& url, bool replace) {
  const Outcome outcome = CheckSource(file_system::Look(source));
  return outcome ? http_file::Upload(source, url, replace) : outcome;
}

Outcome CopyAny(const ZelString& source, const ZelString& destination, bool replace,
                Source fate = Source::kStays) {
  const bool fromUrl = IsUrl(source);
  const bool toUrl = IsUrl(destination);
  if (fromUrl && toUrl) return http_file::Copy(source, destination, replace);

  const NativePath nativeSource = fromUrl ? NativePath{} : ToNativeFile(source);
  if (!nativeSource) return InvalidName(nativeSource);
  const NativePath nativeDestination = toUrl ? NativePath{} : ToNativeFile(destination);
  if (!nativeDestination) return InvalidName(nativeDestination);
  if (fromUrl) return Download(source, nativeDestination.path, replace, fate);
  if (toUrl) return Upload(nativeSource.path, destination, replace);
  return CopyOnDisk(nativeSource.path, nativeDestination.path, replace, fate);
}

Outcome DeleteAny(const ZelString& path, bool force) {
  if (IsUrl(path)) return http_file::Delete(path);
  const NativePath native = ToNativeFile(path);
  if (!native) return InvalidName(native);
  return OutcomeOf(file_system::RemoveFile(native.path, force));
}

// A move that the system cannot do in one step. One that fails leaves no second file behind.
Outcome CopyAndDelete(const ZelString& source, const ZelString& destination) {
  Outcome outcome = CopyAny(source, destination, false, Source::kGoes);
  if (!outcome) return outcome;
  outcome = DeleteAny(source, false);
  if (!outcome) DeleteAny(destination, true);
  return outcome;
}

Outcome MoveLink(const std::filesystem::path& source, const std::filesystem::path& destination) {
  int error = file_system::CopyLink(source, destination);
  if (error != 0) return OutcomeOf(error);
  error = file_system::RemoveFile(source, false);
  if (error != 0) file_system::RemoveFile(destination, true);
  return OutcomeOf(error);
}

Outcome MoveOnDisk(const ZelString& source, const ZelString& destination) {
  const NativePath from = ToNativeFile(source);
  if (!from) return InvalidName(from);
  const NativePath to = ToNativeFile(destination);
  if (!to) return InvalidName(to);

  const Status status = file_system::LookAtEntry(from.path);
  if (status.kind == Kind::kMissing) return OutcomeOf(status.error);
  if (status.kind == Kind::kDirectory) return OutcomeOf(file_system::kErrorIsDirectory);
  if (from.path.native() == to.path.native()) return {};

  const int error = file_system::RenameFile(from.path, to.path);
  if (error != file_system::kErrorOtherVolume) return OutcomeOf(error);
  return status.isLink ? MoveLink(from.path, to.path) : CopyAndDelete(source, destination);
}

Outcome MoveAny(const ZelString& source, const ZelString& destination) {
  if (!IsUrl(source) && !IsUrl(destination)) return MoveOnDisk(source, destination);
  if (source != destination) return CopyAndDelete(source, destination);
  return FileExists(source) ? Outcome{} : OutcomeOf(file_system::kErrorNotFound);
}

// What HEAD says about a URL, and a log line when it says nothing.
http_file::Properties PropertiesOf(const ZelString& url) {
  http_file::Properties properties = http_file::GetProperties(url);
  if (properties.presence == Presence::kUnknown) {
    LibraryLog().WarningWithNL("look at %S failed: %S", ForLog(url), properties.reason);
  }
  return properties;
}

Status StatusAt(const ZelString& path) {
  const NativePath native = ToNativeFile(path);
  return native ? file_system::Look(native.path) : Status{};
}

// Whether there is a file or directory.
bool StandsThere(const ZelString& path) {
  const NativePath native = ToNativePath(path);
  return native && file_system::Look(native.path).kind != Kind::kMissing;
}

}  // namespace

int FileExists(const ZelString& path) {
  return Guarded("FileExists", 0, [&] {
    if (IsUrl(path)) return PropertiesOf(path).presence == Presence::kExists ? 1 : 0;
    const std::optional<bool> cameOut = LastExtractionTo(path);
    if (cameOut) return *cameOut && StandsThere(path) ? 1 : 0;
    const Kind kind = StatusAt(path).kind;
    return kind == Kind::kFile || kind == Kind::kOther ? 1 : 0;
  });
}

uint32_t FileGetSize(const ZelString& path) {
  return Guarded("FileGetSize", uint32_t{0}, [&] {
    if (IsUrl(path)) return static_cast<uint32_t>(PropertiesOf(path).sizeBytes);
    const Status status = StatusAt(path);
    return status.kind == Kind::kFile ? static_cast<uint32_t>(status.sizeBytes) : 0;
  });
}

int FileCopyNet(const ZelString& source, const ZelString& destination, int failIfExists) {
  return Guarded("FileCopyNet", -1, [&] {
    const Outcome outcome = CopyAny(source, destination, failIfExists == 0);
    if (!outcome) {
      LibraryLog().WarningWithNL("copy of %S to %S failed: %S", ForLog(source), ForLog(destination),
                                 outcome.reason);
    }
    return outcome.code;
  });
}

int FileRenameNet(const ZelString& source, const ZelString& destination) {
  return Guarded("FileRenameNet", -1, [&] {
    const Outcome outcome = MoveAny(source, destination);
    if (!outcome) {
      LibraryLog().WarningWithNL("move of %S to %S failed: %S", ForLog(source), ForLog(destination),
                                 outcome.reason);
    }
    return outcome.code;
  });
}

int FileDeleteNet(const ZelString& path, bool force) {
  return Guarded("FileDeleteNet", -1, [&] {
    const Outcome outcome = DeleteAny(path, force);
    if (!outcome) {
      LibraryLog().WarningWithNL("deletion of %S failed: %S", ForLog(path), outcome.reason);
    }
    return outcome.code;
  });
}
