#pragma once

#include <cstdint>

#include "libZel/string.h"

// Files and directories of the machine, and files behind http:// and https:// URLs where said so.
//
// Paths may use "\" and "/". A path that is empty, holds a NUL character or cannot name a file on
// this platform names nothing: it does not exist, and operations on it fail. The reason of a
// failure goes to the library's log. Nothing here throws; any number of threads may call at once.

/// 1 when `path` is an existing file (anything but a directory; links are followed; a URL that
/// answers HEAD with success), else 0.
int FileExists(const ZelString& path);

/// The file's size in bytes, modulo 2^32; 0 when it cannot be told. URLs: the Content-Length of
/// HEAD.
uint32_t FileGetSize(const ZelString& path);

/// Copies a file: 0 on success, else an error number of the system (or -1). The destination is
/// replaced unless `failIfExists` is non-zero; it appears under its name only when it is complete,
/// with the source's modification time and permissions. Either side may be a URL (GET, PUT).
int FileCopyNet(const ZelString& source, const ZelString& destination, int failIfExists);

/// Moves a file: 0 on success, else an error number of the system (or -1). An existing destination
/// is refused. Across volumes, and where a URL is involved, it copies and then deletes the source.
int FileRenameNet(const ZelString& source, const ZelString& destination);

/// Deletes a file (a link itself, never its target): 0 on success, else an error number of the
/// system (or -1). `force` also deletes a file marked read-only. URLs: DELETE.
int FileDeleteNet(const ZelString& path, bool force);

/// 1 when `path` is an existing directory (links are followed), else 0.
int DirExists(const ZelString& path);

/// Creates one directory: 1 when it was created, 0 on failure (a missing parent, an existing
/// entry).
int DirCreate(const ZelString& path);

/// Renames a directory: 1 on success, else 0. An existing destination is refused. A call repeated
/// with the same arguments by the same thread right after it succeeded answers 1 again while the
/// renamed directory still stands under `destination`: the rename is done. Renaming a directory to
/// its own name answers 1 and changes nothing.
int DirRename(const ZelString& source, const ZelString& destination);

/// Deletes a directory: 1 on success, else 0. With `recursive` non-zero its content goes first;
/// links in it are deleted, never followed. With `keepRoot` non-zero the directory itself stays.
int DirDelete(const ZelString& path, int recursive, int keepRoot);
