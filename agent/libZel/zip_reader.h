#pragma once

#include <filesystem>
#include <memory>

#include "agent/libZel/archive_limits.h"
#include "agent/libZel/outcome.h"
#include "agent/libZel/zip_directory.h"

namespace file_system {
class OutputTree;
}

/// A ZIP archive that is unpacked. For one thread at once. Throws only for want of memory, of which
/// it takes some MiB beside the directory, whatever the entries' sizes.
class ZipReader {
 public:
  ZipReader();
  ~ZipReader();
  ZipReader(const ZipReader&) = delete;
  ZipReader& operator=(const ZipReader&) = delete;

  /// Reads and checks the directory, twice: libzip must agree. Once only.
  Outcome Open(const std::filesystem::path& path, const ArchiveLimits& limits);

  const std::vector<ZipEntry>& Entries() const;
  /// Why entry `index` must not come out, whatever its content: null when nothing is known against
  /// it. It need not be asked before `Extract`.
  const char* ReasonToRefuse(size_t index) const;

  /// Writes the entry below the root of `tree`, under the names that it has in the archive.
  /// `*writtenBytes` counts up with what is written, also when it fails.
  Outcome Extract(size_t index, file_system::OutputTree* tree, uint64_t* writtenBytes);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
