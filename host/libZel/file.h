#pragma once

#include <cstdint>
#include <memory>

#include "libZel/string.h"

class TextLines;

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

/// The file's size in bytes; -1 (all bits set) when it cannot be told.
int64_t FileGetSize64(const ZelString& path);

/// When the file or directory was last modified, in seconds since 1970-01-01 00:00 UTC, held
/// between 0 and 0xFFFFFFFE; 0xFFFFFFFF when it cannot be told.
uint32_t FileGetWriteTime(const ZelString& path);

/// The mode bits of POSIX's sys/stat.h: the type (0040000 directory, 0100000 regular file) and the
/// permissions, set-ID and sticky bits included; 0 when they cannot be told. On Windows the
/// permissions are made up: readable by all, writable without the read-only attribute, executable
/// when it is a directory or its extension is exe, com, bat or cmd.
uint32_t FileGetMode(const ZelString& path);

/// Windows file-attribute bits: 1 read-only, 2 hidden, 4 system, 16 directory, 128 none of these,
/// 1024 link; all bits set when there is no such entry. Links to directories are directories.
/// Elsewhere a name that starts with a dot is hidden, a file that nobody may write is read-only,
/// and nothing is a system file. An entry that the directory names but that cannot be looked at
/// counts as what the directory says of it.
uint32_t FileGetAttributes(const ZelString& path);

/// 1 when `path` is a regular file that can be read and whose first 4096 bytes look like text: none
/// of them is a control character but BEL, BS, TAB, LF, VT, FF, CR and ESC. Bytes above 127 are
/// text (UTF-8, or a code page); UTF-16 is not. An empty file is text. Else 0. Pipes and devices
/// are not opened, and no file is fetched from remote storage for it.
int FileIsAscii(const ZelString& path);

/// The MD5 digest (RFC 1321) of a regular file as 32 lower-case hexadecimal digits; empty when it
/// cannot be read. The file is read in pieces.
ZelString FileMd5(const ZelString& path);

/// Opens a regular file for reading. `mode` is 0. Returns a handle for `FileRead` and `FileClose`;
/// -1 on failure. Pipes and devices are refused.
int FileOpen(const ZelString& path, int mode);

/// Reads up to `sizeBytes` bytes from where the handle stands. Returns how many; 0 at the end of
/// the file, 0xFFFFFFFF on error.
uint32_t FileRead(int handle, char* buffer, uint32_t sizeBytes);

/// Creates a file that does not exist yet, for writing. `mode` is 0. Returns a handle for
/// `FileWrite` and `FileClose`; -1 (0xFFFFFFFF) on failure, an existing entry included. A file that
/// this thread has deleted under the same name just before with `FileDelete` gives its owner and
/// permissions to the new one.
int FileCreate(const ZelString& path, int mode);

/// Writes all of `sizeBytes` bytes, through to the disk, or none: what a failed write has added is
/// cut off again. Returns how many. On failure it returns what makes the sum (modulo 2^32) of all
/// answers for this handle 0xFFFFFFFF (so the first write answers 0xFFFFFFFF), and every later
/// write answers 0 and writes nothing: callers that add the answers up see the failure in the sum.
uint32_t FileWrite(int handle, const char* bytes, uint32_t sizeBytes);

/// Closes a handle of `FileOpen` or `FileCreate`. 0 on success, -1 on failure.
int FileClose(int handle);

/// Copies a file on this machine: 0 on success, else an error number of the system (or -1). The
/// copy has the source's owner (as far as the agent may give it), permissions and times, but can
/// always be written. It is on the disk before it appears under its name. An existing destination
/// is replaced, even while it is open; where the disk has no room for another copy, it becomes a
/// second link to the source instead. A destination that does not exist yet is always a copy, so a
/// full disk is an error then. With `failIfExists` non-zero an existing destination is refused.
int FileCopy(const ZelString& source, const ZelString& destination, int failIfExists);

/// Deletes a file on this machine (a link itself, never its target): 0 on success, else an error
/// number of the system (or -1). A read-only file (`FileGetAttributes`) is refused unless `force`
/// is non-zero.
int FileDelete(const ZelString& path, int force);

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

/// A file known by its name.
class File {
 public:
  explicit File(const ZelString& path) : path_(path) {}

  /// Whether it is a text file: the test of `FileIsAscii`.
  bool FileIsValid() const;

  /// Puts `text`, which brings its line end along, in front of line `line` (counted from 1; the
  /// number after the last line appends). 1 on success, else 0 with the file as it was.
  ///
  /// The file is replaced as a whole through a temporary and a rename, with all other bytes as they
  /// were; the text is written in the file's encoding (UTF-8, or UTF-16 after its byte-order mark).
  /// An object refuses all edits after one that failed: its line numbers no longer hold. It also
  /// refuses one in a place where the file is not what the object has read of it, if it has.
  /// Refused as well: files marked read-only, and those of more than 16 MiB.
  int InsertLine(unsigned long line, const ZelString& text);

  /// Deletes line `line` (counted from 1) with its line end. 1 on success, else 0; the rest as for
  /// `InsertLine`.
  int DeleteLine(unsigned long line);

 protected:
  const ZelString& Path() const { return path_; }

  /// What an object that reads the file has read, with its own edits since; else null.
  std::shared_ptr<const TextLines> lines_;

 private:
  ZelString path_;
  bool editFailed_ = false;
};
