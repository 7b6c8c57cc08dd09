#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "libZel/string.h"

/// A file that is being received: it grows under a name of its own beside its destination, takes
/// the destination's place with `Commit`, and is gone without that.
class PendingUpload {
 public:
  enum class Trouble {
    kNone,
    kDiskFull,
    kNotAFile,  ///< there is a directory where the file is to be
    kOther
  };
  struct Result {
    Trouble trouble = Trouble::kNone;
    ZelString reason;  ///< a sentence

    explicit operator bool() const { return trouble == Trouble::kNone; }
  };

  PendingUpload();
  ~PendingUpload();
  PendingUpload(const PendingUpload&) = delete;
  PendingUpload& operator=(const PendingUpload&) = delete;

  /// Makes the directory, with its parents, when it is missing, and the file in it, empty. `name`
  /// is one that the platform can store; `expectedBytes` is what the disk must have room for. Once
  /// only.
  Result Create(const std::filesystem::path& directory, const ZelString& name,
                uint64_t expectedBytes);
  Result Write(const void* bytes, size_t count);
  /// Gives the file its name; an existing file is replaced.
  Result Commit();
  /// Where the file will be; empty before `Create`.
  const ZelString& Destination() const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
