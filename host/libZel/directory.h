#pragma once

#include <cstdint>

#include "libZel/string.h"
#include "libZel/vector.h"

// The entries of a directory, one after the other. The names are the customary ones; this header
// and the system's <dirent.h> cannot be included together.

/// One entry. Owned by the directory it was read from, valid until the next read.
struct ZelDirectoryEntry {
  /// Terminated. Bytes that are not UTF-8 are lone surrogates, as in `ZelString`.
  const TCHAR* name = nullptr;
};
using dirent = ZelDirectoryEntry;

/// A directory being read.
struct ZelDirectory {
  /// The entry that `ReadDirectory` returned last.
  dirent entry;
  /// Its Windows file-attribute bits (see `FileGetAttributes`), as the directory tells them.
  uint32_t attributes = 0;
};
using DIR = ZelDirectory;

/// Starts to read the directory `path`; null on failure, with a warning in the library's log. One
/// thread uses what it returns.
///
/// Until the next `ReadDirectory` or `CloseDirectory`, the thread that reads has the entry's facts
/// at hand: `FileGetAttributes`, `FileGetSize64`, `FileGetWriteTime` and `FileGetMode` of `path`
/// followed by the entry's name (with a "/" between them, unless `path` ends in a separator)
/// answer from what was gathered at once, without asking the system again.
DIR* OpenDirectory(const ZelString& path);

/// The next entry, "." and ".." included, in the order of the system; null after the last one, and
/// when the directory cannot be read on (with a warning in the library's log).
dirent* ReadDirectory(DIR* directory);

/// Ends the reading and frees `directory`, which may be null.
void CloseDirectory(DIR* directory);

/// The entries of `directory`, sorted by name: their full paths with `withPath`, else their names;
/// files alone with `filesOnly`; with everything below it, unless `recursive` is false (links are
/// not followed). "." and ".." are left out. Empty, with a warning in the library's log, when it
/// cannot be read; a directory below it that cannot be read is passed over with a warning. Never
/// throws.
ZelVector<ZelString> DirListFiles(const ZelString& directory, bool recursive, bool withPath,
                                  bool filesOnly);
