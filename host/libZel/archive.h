#pragma once

#include <cstdint>
#include <memory>

#include "libZel/string.h"

// NOLINTBEGIN(readability-identifier-naming): the library's own names
enum enum_ArchiveKind : int {
  kArchiveZip = 1,  ///< ZIP (PKWARE's APPNOTE 6.3), with zip64 where sizes need it
};
// NOLINTEND(readability-identifier-naming)

/// An archive file, opened for reading or filled with a directory.
///
/// What an archive holds is not trusted. An entry that has no place below the directory it is
/// extracted to does not come out, nor does one that is encrypted, damaged, a link, or beyond the
/// agent's limits (see docs/configuration.md).
///
/// Nothing here throws; reasons of failures go to the library's log.
///
/// Threads: one at a time; archives are independent.
class GenericArchive {
 public:
  /// What is told while a directory is packed: bytes done, and bytes altogether.
  using ProgressCallback = void (*)(uint64_t doneBytes, uint64_t totalBytes);

  /// Nothing is opened or made before it is needed. `kind` is `kArchiveZip`.
  GenericArchive(const ZelString& path, enum_ArchiveKind kind);
  /// Completes what `AddDirectory` has begun, and closes the file.
  ~GenericArchive();
  GenericArchive(const GenericArchive&) = delete;
  GenericArchive& operator=(const GenericArchive&) = delete;

  /// The number of entries, directories included; they are numbered from 1. A file that is no
  /// archive, or a damaged one, has one entry that has no name and never comes out, so that it is
  /// not taken for an empty archive.
  uint32_t GetFileCount();
  /// Where entry `index` stands in the archive, as the archive has it ("docs/plan.txt"; "docs/" for
  /// a directory); empty when there is no such entry.
  ZelString GetEntryPath(uint32_t index);
  /// Writes entry `index` to `target`, making missing directories: 0 on success, else an error
  /// number of the system (or -1). `target` ends with the entry's path, as `SplitPath` gives its
  /// parts, behind the directory that everything is extracted to: below that directory no link is
  /// followed. A file appears under its name when it is complete and its checksum is right, with
  /// the time and permissions that the archive tells, and takes the place of one that stood there.
  /// A directory's entry makes the directory, which gets time and permissions, too, if it is new:
  /// after the last entry, or when this object ends. Whoever has extracted all entries may delete
  /// the archive: the last one comes out when all are on the disk, as far as the system can tell.
  ///
  /// `FileExists` asked for exactly this `target`, by the same thread, before it extracts anything
  /// else tells whether the entry came out: 1 also for a directory, 0 also where an older file
  /// stands under the name.
  int ExtractEntry(uint32_t index, const ZelString& target);

  /// Fills a new archive with what is in `directory`: 0 on success, else an error number of the
  /// system (or -1). The archive appears under its name when this object ends, and only if every
  /// file could be read; one that exists is replaced. Links are left out, with a warning.
  /// `recursive` is 1: with everything below. `flags` is 0. `prefix` is put in front of the
  /// entries' names, `pattern` restricts the names of files; both are empty. `level` is the effort
  /// from 0 (stored) to 9. `progress` may be null.
  int AddDirectory(const ZelString& directory, int recursive, int flags, const ZelString& prefix,
                   const ZelString& pattern, int level, ProgressCallback progress);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
