#include "libZel/archive.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZel/boundary.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/last_extraction.h"
#include "agent/libZel/output_tree.h"
#include "agent/libZel/progress.h"
#include "agent/libZel/zip_names.h"
#include "agent/libZel/zip_reader.h"
#include "agent/libZel/zip_writer.h"

namespace {

using Names = std::vector<std::string>;

void Warn(const char* what, const ZelString& path, const ZelString& reason) {
  LibraryLog().WarningWithNL("%S of %S failed: %S", what, path, reason);
}

// Short names of Windows, and letters whose case we do not know.
bool MayHaveOtherNames(std::string_view name) {
  return std::any_of(name.begin(), name.end(),
                     [](char c) { return c == '~' || static_cast<signed char>(c) < 0; });
}

uint64_t SizeOf(const std::vector<ZipEntry>& entries) {
  uint64_t sum = 0;
  for (const ZipEntry& entry : entries) sum += std::min(entry.sizeBytes, UINT64_MAX - sum);
  return sum;
}

}  // namespace

struct GenericArchive::Implementation {
  Implementation(const ZelString& archivePath, enum_ArchiveKind archiveKind)
      : path(archivePath), kind(archiveKind) {}

  ZipReader* Reader();
  Outcome OpenReader();
  Outcome Extract(size_t index, const ZelString& target);
  Outcome OpenTree(const ZelString& target, const Names& names);
  bool IsItsOwnPlace(const ZelString& target, const Names& names) const;
  Outcome Pack(const ZelString& directory, int level, ProgressCallback callback);
  void Finish();

  const ZelString path;
  const enum_ArchiveKind kind;
  std::filesystem::path nativePath;

  // Of reading. Without a reader the archive was tried and cannot be read.
  bool isOpened = false;
  std::unique_ptr<ZipReader> reader;
  // Of the archive's own name.
  std::string nameKey;
  bool hasOtherNames = false;
  file_system::OutputTree tree;
  // What `tree` was opened for.
  std::optional<std::string> root;
  uint64_t extractedCount = 0;
  uint64_t refusedCount = 0;

  // Of packing.
  std::unique_ptr<ZipWriter> writer;

  std::unique_ptr<Progress> progress;
};

Outcome GenericArchive::Implementation::OpenReader() {
  if (kind != kArchiveZip) return FailedBecause("its kind is not known");
  const NativePath native = ToNativeFile(path);
  if (!native) return InvalidName(native);
  nativePath = native.path;
  const ZelString name = FromNativePath(nativePath.filename());
  nameKey = zip_names::Key(name.Utf8(), false);
  hasOtherNames = MayHaveOtherNames(name.Utf8());
  // One that is only half open, also for want of memory, must not be asked for entries.
  auto opened = std::make_unique<ZipReader>();
  Outcome outcome = opened->Open(native.path, GetArchiveLimits());
  if (outcome) reader = std::move(opened);
  return outcome;
}

ZipReader* GenericArchive::Implementation::Reader() {
  if (isOpened) return reader.get();
  isOpened = true;
  const Outcome outcome = OpenReader();
  if (!outcome) Warn("reading of the archive", path, outcome.reason);
  return reader.get();
}

// The entries of one archive mostly go to one directory.
Outcome GenericArchive::Implementation::OpenTree(const ZelString& target, const Names& names) {
  std::string wanted = zip_names::RootOf(target.Utf8(), names);
  if (wanted.empty()) return FailedBecause("the target does not end with its name");
  if (root == wanted) return {};
  root.reset();
  const NativePath native = ToNativePath(ZelString(wanted));
  if (!native) return InvalidName(native);
  const int error = tree.Open(native.path);
  if (error == 0) root = std::move(wanted);
  return OutcomeOf(error);
}

// Whoever unpacks the archive deletes it then: an entry that had taken its place would be lost.
bool GenericArchive::Implementation::IsItsOwnPlace(const ZelString& target,
                                                   const Names& names) const {
  if (names.empty()) return false;
  const bool mayBeTheSame = hasOtherNames || MayHaveOtherNames(names.back()) ||
                            zip_names::Key(names.back(), false) == nameKey;
  if (!mayBeTheSame) return false;
  const NativePath native = ToNativePath(target);
  if (!native) return false;
  const file_system::Status there = file_system::Look(native.path);
  if (there.kind == file_system::Kind::kMissing) return false;
  const file_system::Status archive = file_system::Look(nativePath);
  return archive.kind != file_system::Kind::kMissing && archive.identity == there.identity;
}

Outcome GenericArchive::Implementation::Extract(size_t index, const ZelString& target) {
  if (const char* reason = reader->ReasonToRefuse(index)) {
    return FailedBecause(reason, file_system::kErrorInvalidName);
  }
  const ZelString& name = reader->Entries()[index].name;
  const Names names = zip_names::Split(name.Utf8());
  Outcome outcome = OpenTree(target, names);
  if (!outcome) return outcome;
  if (IsItsOwnPlace(target, names)) {
    return FailedBecause("it would take the place of the archive", file_system::kErrorExists);
  }
  uint64_t writtenBytes = 0;
  outcome = reader->Extract(index, &tree, &writtenBytes);
  progress->Add(writtenBytes);
  if (!outcome) return outcome;
  // Once all have come out the archive may be deleted, which may have been the only other copy.
  const bool isWhole = ++extractedCount == reader->Entries().size();
  if (!isWhole) return outcome;
  const int error = tree.FinishDirectories();
  return OutcomeOf(error == 0 ? tree.Sync() : error);
}

Outcome GenericArchive::Implementation::Pack(const ZelString& directory, int level,
                                             ProgressCallback callback) {
  if (kind != kArchiveZip) return FailedBecause("its kind is not known");
  if (writer || isOpened) return FailedBecause("it is in use already");
  const NativePath archive = ToNativeFile(path);
  if (!archive) return InvalidName(archive);
  const NativePath source = ToNativePath(directory);
  if (!source) return InvalidName(source);
  writer = std::make_unique<ZipWriter>();
  uint64_t doneBytes = 0;
  progress = std::make_unique<Progress>(Progress::Kind::kPack, path, 0);
  return writer->Pack(source.path, archive.path, level, [&](uint64_t step, uint64_t total) {
    progress->SetTotal(total);
    progress->Add(step);
    doneBytes += step;
    if (callback != nullptr) callback(doneBytes, total);
  });
}

void GenericArchive::Implementation::Finish() {
  if (writer && writer->IsComplete()) {
    const int error = writer->Commit();
    if (error != 0) Warn("packing", path, file_system::ErrorText(error));
    progress->Finish(error == 0 ? ZelString() : file_system::ErrorText(error));
  } else if (!writer && progress) {
    // After entries that did not come out.
    tree.FinishDirectories();
    progress->Finish(refusedCount == 0 ? ZelString()
                                       : ZelString::FromInt64(static_cast<int64_t>(refusedCount)) +
                                             " entries did not come out");
  }
}

GenericArchive::GenericArchive(const ZelString& path, enum_ArchiveKind kind)
    : implementation_(std::make_unique<Implementation>(path, kind)) {}

GenericArchive::~GenericArchive() {
  ForgetExtraction(this);
  Guarded("~GenericArchive", 0, [this] {
    implementation_->Finish();
    return 0;
  });
}

uint32_t GenericArchive::GetFileCount() {
  return Guarded("GetFileCount", uint32_t{1}, [this] {
    const ZipReader* const reader = implementation_->Reader();
    return reader == nullptr ? 1 : static_cast<uint32_t>(reader->Entries().size());
  });
}

ZelString GenericArchive::GetEntryPath(uint32_t index) {
  return Guarded("GetEntryPath", ZelString(), [&] {
    const ZipReader* const reader = implementation_->Reader();
    if (reader == nullptr || index == 0 || index > reader->Entries().size()) return ZelString();
    return reader->Entries()[index - 1].name;
  });
}

int GenericArchive::ExtractEntry(uint32_t index, const ZelString& target) {
  RememberExtraction(this, target, false);
  return Guarded("ExtractEntry", -1, [&] {
    Implementation& self = *implementation_;
    const ZipReader* const reader = self.Reader();
    if (reader == nullptr || index == 0 || index > reader->Entries().size()) return -1;
    if (!self.progress) {
      self.progress = std::make_unique<Progress>(Progress::Kind::kExtract, self.path,
                                                 SizeOf(reader->Entries()));
    }
    const Outcome outcome = self.Extract(index - 1, target);
    if (outcome) {
      RememberExtraction(this, target, true);
    } else {
      ++self.refusedCount;
      LibraryLog().WarningWithNL("entry \"%S\" of %S does not come out: %S",
                                 reader->Entries()[index - 1].name, self.path, outcome.reason);
    }
    return outcome.code;
  });
}

int GenericArchive::AddDirectory(const ZelString& directory, int recursive, int flags,
                                 const ZelString& prefix, const ZelString& pattern, int level,
                                 ProgressCallback progress) {
  return Guarded("AddDirectory", -1, [&] {
    const bool isKnown = recursive == 1 && flags == 0 && prefix.IsEmpty() && pattern.IsEmpty();
    const Outcome outcome = isKnown ? implementation_->Pack(directory, level, progress)
                                    : FailedBecause("its options are not supported");
    if (!outcome) {
      LibraryLog().WarningWithNL("packing of %S into %S failed: %S", directory,
                                 implementation_->path, outcome.reason);
    }
    return outcome.code;
  });
}
