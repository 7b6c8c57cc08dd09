#include "agent/libZel/directory_listing.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/libZel/boundary.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/file_facts.h"
#include "agent/libZel/file_system.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/outcome.h"
#include "agent/libZel/path_parts.h"
#include "agent/libZel/per_thread.h"
#include "libZel/directory.h"
#include "libZel/path.h"

namespace {

// What is behind the public structure.
struct Listing : ZelDirectory {
  // What asks about the current entry: the path as given, a separator, and the name.
  std::string entryPath;
  size_t prefixSize = 0;
  file_system::DirectoryReader reader;
};

// The one that a thread has read from last, while it stands on an entry.
struct Current {
  Listing* listing = nullptr;
};

Listing*& CurrentListing() {
  static PerThread<Current> current;
  return current.Get().listing;
}

void Forget(const Listing* listing) {
  Listing*& current = CurrentListing();
  if (current == listing) current = nullptr;
}

void LogListingFailure(const ZelString& path, const ZelString& reason) {
  LibraryLog().WarningWithNL("reading of the directory %S failed: %S", ForLog(path), reason);
}

// The warning names the directory as the caller does.
Outcome OpenListing(const ZelString& path, Listing* listing) {
  const NativePath native = ToNativePath(path);
  if (!native) return FailedBecause(native.error);
  listing->entryPath = path.Utf8();
  if (!IsPathSeparator(listing->entryPath.back())) listing->entryPath += '/';
  listing->prefixSize = listing->entryPath.size();
  return OutcomeOf(listing->reader.Open(native.path));
}

dirent* ReadListing(Listing* listing) {
  Forget(listing);
  listing->entryPath.resize(listing->prefixSize);
  int error = 0;
  if (!listing->reader.Next(&error)) {
    if (error != 0) LogListingFailure(listing->entryPath, file_system::ErrorText(error));
    return nullptr;
  }
  listing->reader.AppendName(&listing->entryPath);
  listing->entry.name = listing->reader.Name();
  listing->attributes = listing->reader.ListedAttributes();
  CurrentListing() = listing;
  return &listing->entry;
}

// All entries of a directory; those below it are read one after the other, however deep they lie.
class TreeListing {
 public:
  TreeListing(bool isRecursive, bool withPath, bool filesOnly)
      : isRecursive_(isRecursive), withPath_(withPath), filesOnly_(filesOnly) {}

  void Run(const ZelString& directory) {
    open_.push_back(CompletePath(directory));
    while (!open_.empty()) {
      const ZelString path = std::move(open_.back());
      open_.pop_back();
      const Outcome outcome = ReadOne(path);
      if (!outcome) LogListingFailure(path, outcome.reason);
    }
  }

  ZelVector<ZelString> Sorted() && {
    std::sort(found_.begin(), found_.end());
    return std::move(found_);
  }

 private:
  Outcome ReadOne(const ZelString& path) {
    const NativePath native = ToNativePath(path);
    if (!native) return FailedBecause(native.error);
    file_system::DirectoryReader reader;
    int error = reader.Open(native.path);
    if (error != 0) return OutcomeOf(error);

    std::string prefix(path.Utf8());
    if (!IsPathSeparator(prefix.back())) prefix += std::filesystem::path::preferred_separator;
    while (reader.Next(&error)) Take(prefix, &reader);
    return OutcomeOf(error);
  }

  void Take(const std::string& prefix, file_system::DirectoryReader* reader) {
    std::string name;
    reader->AppendName(&name);
    if (name == "." || name == "..") return;
    const uint32_t attributes = reader->ListedAttributes();
    const bool isDirectory = (attributes & kDirectoryAttribute) != 0;
    const bool isLink = (attributes & kLinkAttribute) != 0;

    if (!filesOnly_ || !isDirectory) found_.emplace_back(withPath_ ? prefix + name : name);
    // A name that holds a separator would lead to another place.
    const bool canBeNamed = std::none_of(name.begin(), name.end(), IsPathSeparator);
    if (isRecursive_ && isDirectory && !isLink && canBeNamed) open_.emplace_back(prefix + name);
  }

  const bool isRecursive_;
  const bool withPath_;
  const bool filesOnly_;
  std::vector<ZelString> open_;
  ZelVector<ZelString> found_;
};

}  // namespace

file_system::DirectoryReader* ReaderOfEntry(const ZelString& path) {
  Listing* const listing = CurrentListing();
  return listing != nullptr && listing->entryPath == path.Utf8() ? &listing->reader : nullptr;
}

DIR* OpenDirectory(const ZelString& path) {
  return Guarded("OpenDirectory", static_cast<DIR*>(nullptr), [&]() -> DIR* {
    auto listing = std::make_unique<Listing>();
    const Outcome outcome = OpenListing(path, listing.get());
    if (outcome) return listing.release();
    LogListingFailure(path, outcome.reason);
    return nullptr;
  });
}

dirent* ReadDirectory(DIR* directory) {
  return Guarded("ReadDirectory", static_cast<dirent*>(nullptr),
                 [&] { return ReadListing(static_cast<Listing*>(directory)); });
}

void CloseDirectory(DIR* directory) {
  const std::unique_ptr<Listing> listing(static_cast<Listing*>(directory));
  if (!listing) return;
  Guarded("CloseDirectory", 0, [&] {
    Forget(listing.get());
    return 0;
  });
}

ZelVector<ZelString> DirListFiles(const ZelString& directory, bool recursive, bool withPath,
                                  bool filesOnly) {
  return Guarded("DirListFiles", ZelVector<ZelString>(), [&] {
    TreeListing listing(recursive, withPath, filesOnly);
    listing.Run(directory);
    return std::move(listing).Sorted();
  });
}
