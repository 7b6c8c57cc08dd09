#include "agent/libZel/file_checks.h"

#include "agent/libZel/http_file.h"
#include "agent/libZel/path_parts.h"
#include "libZel/url.h"

using file_system::Kind;
using file_system::Status;

NativePath ToNativeFile(const ZelString& path) {
  NativePath native = ToNativePath(path);
  if (native && IsPathSeparator(path.Utf8().back())) {
    native.error = "a path that ends in a separator names a directory";
  }
  return native;
}

ZelString ForLog(const ZelString& path) {
  return UrlParseInet::CanHandleUrl(path) != 0 ? http_file::WithoutCredentials(path) : path;
}

Outcome InvalidName(const NativePath& path) {
  return FailedBecause(path.error, file_system::kErrorInvalidName);
}

Outcome CheckSource(const Status& source) {
  if (source.kind == Kind::kMissing) return OutcomeOf(source.error);
  if (source.kind == Kind::kDirectory) return OutcomeOf(file_system::kErrorIsDirectory);
  if (source.kind == Kind::kFile) return {};
  return FailedBecause("the source is not a regular file", file_system::kErrorNotRegular);
}

Outcome CheckDestination(const std::filesystem::path& path, const Status* source, bool replace) {
  // A link that leads nowhere is an entry all the same.
  if (!replace && file_system::LookAtEntry(path).kind != Kind::kMissing) {
    return OutcomeOf(file_system::kErrorExists);
  }
  const Status destination = file_system::Look(path);
  if (destination.kind == Kind::kDirectory) return OutcomeOf(file_system::kErrorIsDirectory);
  if (destination.kind == Kind::kOther) {
    return FailedBecause("the destination is not a regular file", file_system::kErrorNotRegular);
  }
  if (destination.kind == Kind::kFile && source != nullptr &&
      destination.identity == source->identity) {
    return FailedBecause("source and destination are the same file", file_system::kErrorSameFile);
  }
  return {};
}
