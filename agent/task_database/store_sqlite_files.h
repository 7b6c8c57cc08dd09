#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "agent/libZel/platform/posix/unique_fd.h"

/// The files that all connections of this process to one SQLite database share: the database's own,
/// the log of what was written ahead, "-wal", and its index, "-shm". What is written to files that
/// were removed or replaced would be lost. Where the path is a link, they stand beside its target.
///
/// SQLite's locks do not keep the log from that: when any part of a process closes the database's
/// file, the system forgets the process's locks on it, and the next other program to close the
/// database takes itself for its last user and tidies up. So there is a lock here that belongs to
/// an open file instead of the process.
///
/// SQLite shares the log's index, "-shm", within a process, whatever became of the files. So
/// nothing may be opened anew before everything that was opened before is closed.
///
/// Threads: all functions may be called from several at once.
class SqliteFiles {
 public:
  explicit SqliteFiles(std::string path);

  SqliteFiles(const SqliteFiles&) = delete;
  SqliteFiles& operator=(const SqliteFiles&) = delete;

  const std::string& Path() const { return path_; }

  /// Counts another connection, before it opens anything. False, after the patience, when there are
  /// connections to files that were removed or replaced.
  bool Enter(std::chrono::milliseconds patience);
  /// Before and after it closes everything.
  void Leaving();
  void Left();

  /// Called when a connection has opened the files. False when these are not those that the others
  /// opened, or not there any more, or about to be removed: then it must not be used. Throws
  /// StoreError when the database's file cannot be opened once more.
  bool AreThoseOpened();

  /// Whether the files are still those that were opened.
  bool AreThere();

 private:
  struct File {
    dev_t device = 0;
    ino_t number = 0;  ///< 0: there is none
    bool operator==(const File&) const = default;
  };
  struct Files {
    File database;
    File log;
    File index;
    bool operator==(const Files&) const = default;
  };
  static File Find(const std::string& path);
  Files FindAll() const;
  bool Hold();
  bool SetLock(short type);

  const std::string path_;
  std::mutex mutex_;
  std::condition_variable left_;
  uint32_t users_ = 0;
  std::optional<Files> opened_;
  bool areLost_ = false;
  UniqueFd held_;  ///< closed after all else that is open of the database's file
};
