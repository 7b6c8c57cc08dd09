#include "agent/task_database/store_sqlite_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "agent/libZel/system_error_text.h"
#include "agent/task_database/task_store.h"

SqliteFiles::SqliteFiles(std::string path) : path_(std::move(path)) {}

bool SqliteFiles::Enter(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  if (opened_ && *opened_ != FindAll()) areLost_ = true;
  if (!left_.wait_for(lock, patience, [this] { return !areLost_; })) return false;
  ++users_;
  return true;
}

/// The last one is to tidy up.
void SqliteFiles::Leaving() {
  const std::lock_guard lock(mutex_);
  if (users_ == 1 && held_) SetLock(F_UNLCK);
}

void SqliteFiles::Left() {
  {
    const std::lock_guard lock(mutex_);
    if (--users_ > 0) return;
    opened_.reset();
    areLost_ = false;
    held_.Close();
  }
  left_.notify_all();
}

bool SqliteFiles::AreThoseOpened() {
  const std::lock_guard lock(mutex_);
  const bool isHeld = Hold();
  const Files now = FindAll();
  if (!opened_) opened_ = now;
  if (!isHeld || *opened_ != now || now.log == File{}) areLost_ = true;
  return !areLost_;
}

bool SqliteFiles::AreThere() {
  const std::lock_guard lock(mutex_);
  if (opened_ && *opened_ != FindAll()) areLost_ = true;
  return !areLost_;
}

SqliteFiles::File SqliteFiles::Find(const std::string& path) {
  struct stat facts = {};
  if (stat(path.c_str(), &facts) != 0) return {};
  return {facts.st_dev, facts.st_ino};
}

SqliteFiles::Files SqliteFiles::FindAll() const {
  std::error_code error;
  const std::string path = std::filesystem::canonical(path_, error).string();
  if (error) return {};
  return {Find(path), Find(path + "-wal"), Find(path + "-shm")};
}

/// False when another program is at work that wants the database for itself.
bool SqliteFiles::Hold() {
  if (!held_) held_ = UniqueFd(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (held_) return SetLock(F_RDLCK);
  if (errno == ENOENT) return false;
  throw StoreError("cannot open the database file '" + path_ + "': " + SystemErrorText(errno));
}

/// Of the bytes that SQLite locks for its users to read, and for one that wants to be the last to
/// write. Where the file system has no locks of this kind there is no protection.
bool SqliteFiles::SetLock(short type) {
  struct flock range = {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = 0x40000002;
  range.l_len = 510;
  return fcntl(held_.Get(), F_OFD_SETLK, &range) == 0 || (errno != EAGAIN && errno != EACCES);
}
