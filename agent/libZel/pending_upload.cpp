#include "agent/libZel/pending_upload.h"

#include <system_error>

#include "agent/libZel/file_system.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/open_file.h"

namespace fs = std::filesystem;

namespace {

using Result = PendingUpload::Result;
using Trouble = PendingUpload::Trouble;

Result FromError(int error) {
  if (error == 0) return {};
  return {file_system::IsDiskFull(error) ? Trouble::kDiskFull : Trouble::kOther,
          file_system::ErrorText(error)};
}

/// Returns an error number.
int MakeWithParents(const fs::path& directory) {
  if (file_system::Look(directory).kind == file_system::Kind::kDirectory) return 0;
  if (!directory.has_relative_path()) return file_system::kErrorNotFound;  // there is no such root
  const int error = MakeWithParents(directory.parent_path());
  if (error != 0) return error;
  const int made = file_system::MakeDirectory(directory);
  // Somebody else may have made it meanwhile.
  const bool isThere = file_system::Look(directory).kind == file_system::Kind::kDirectory;
  return isThere ? 0 : made;
}

/// The largest number when the system does not tell: writing will show.
uint64_t AvailableBytes(const fs::path& directory) {
  std::error_code unknown;
  fs::space_info space = fs::space(directory, unknown);
  if (unknown) {
    // Not every Windows tells it for the form "\\?\".
    const ZelString plain = FromNativePath(directory);
    space = fs::space(std::u8string(plain.Utf8().begin(), plain.Utf8().end()), unknown);
  }
  return unknown ? UINT64_MAX : space.available;
}

bool IsDirectoryAt(const fs::path& path) {
  return file_system::Look(path).kind == file_system::Kind::kDirectory;
}

}  // namespace

struct PendingUpload::Implementation {
  file_system::PendingFile file;
  fs::path path;
  ZelString destination;

  Result NotAFile() const {
    return {Trouble::kNotAFile, "there is a directory of the name " + destination};
  }
};

PendingUpload::PendingUpload() : implementation_(std::make_unique<Implementation>()) {}

PendingUpload::~PendingUpload() = default;

Result PendingUpload::Create(const fs::path& directory, const ZelString& name,
                             uint64_t expectedBytes) {
  Implementation& self = *implementation_;
  const NativePath native = ToNativePath(FromNativePath(directory) + "/" + name);
  if (!native) return {Trouble::kOther, native.error};
  self.path = native.path;
  self.destination = FromNativePath(native.path);
  if (IsDirectoryAt(self.path)) return self.NotAFile();

  const int made = MakeWithParents(self.path.parent_path());
  if (made != 0) return FromError(made);
  const uint64_t available = AvailableBytes(self.path.parent_path());
  if (available < expectedBytes) {
    return {Trouble::kDiskFull, "the volume has " + std::to_string(available) + " bytes left, " +
                                    std::to_string(expectedBytes) + " are needed"};
  }
  self.file.KeepOutOfCache();
  // The sender may delete its own as soon as it hears of success.
  self.file.SurvivePowerCuts();
  return FromError(self.file.Create(self.path));
}

Result PendingUpload::Write(const void* bytes, size_t count) {
  return FromError(implementation_->file.Write(bytes, count));
}

Result PendingUpload::Commit() {
  const int error = implementation_->file.Commit(true);
  if (error != 0 && IsDirectoryAt(implementation_->path)) return implementation_->NotAFile();
  return FromError(error);
}

const ZelString& PendingUpload::Destination() const {
  return implementation_->destination;
}
