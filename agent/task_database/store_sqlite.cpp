#include <fcntl.h>
#include <soci/sqlite3/soci-sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <thread>

#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/system_error_text.h"
#include "agent/task_database/store_database.h"
#include "agent/task_database/store_schema.h"
#include "agent/task_database/store_sqlite_files.h"
#include "agent/task_database/store_text.h"

const Dialect kSqliteDialect = {
    .smallIdentity = "INTEGER PRIMARY KEY AUTOINCREMENT",
    .bigIdentity = "INTEGER PRIMARY KEY AUTOINCREMENT",
    .countVersionTable =
        "SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' AND name = 'schema_version'",
    .lockSchema = "",
    .lockRow = "",
    .listKey = "id",
    .listOrder = "id DESC",
    .mergesUnions = true,
};

namespace {

[[noreturn]] void ThrowSystemError(const std::string& what, const std::string& path) {
  throw StoreError(what + " '" + path + "': " + SystemErrorText(errno));
}

void MakeDirectory(const std::filesystem::path& directory) {
  if (directory.empty() || std::filesystem::exists(std::filesystem::status(directory))) return;
  MakeDirectory(directory.parent_path());
  if (mkdir(directory.c_str(), S_IRWXU) == 0 || errno == EEXIST) return;
  ThrowSystemError("cannot create the directory", directory.string());
}

/// Makes an empty file that is its owner's alone; SQLite gives its other files the same mode.
void MakeFile(const std::string& path) {
  MakeDirectory(std::filesystem::path(path).parent_path());
  const UniqueFd file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file && errno != EEXIST) ThrowSystemError("cannot create the database file", path);
}

/// A path in SOCI's words, which know no way to write quotation marks.
std::string ConnectString(const std::string& path) {
  if (path.find('=') == std::string::npos) return path;
  if (path.find('"') == std::string::npos) return "dbname=\"" + path + "\"";
  throw StoreError("the path '" + path + "' of the database file holds both = and \"");
}

class SqliteConnection : public StoreConnection {
 public:
  explicit SqliteConnection(SqliteFiles* files) : files_(files), path_(files->Path()) {}

  ~SqliteConnection() override {
    if (!hasEntered_) return;
    files_->Leaving();
    sql_.close();
    files_->Left();
  }

  /// False when that needs another attempt, with another connection, because the files of the
  /// database were replaced.
  bool TryOpen(Deadline deadline) {
    constexpr std::chrono::milliseconds kPatience(20);
    hasEntered_ = files_->Enter(std::min(kPatience, Remaining(deadline)));
    if (!hasEntered_) return false;
    MakeFile(path_);
    try {
      Open(deadline);
    } catch (const soci::soci_error& error) {
      throw Explain(error);
    }
    return files_->AreThoseOpened();
  }

  const Dialect& SqlDialect() const override { return kSqliteDialect; }

  bool IsAlive() override { return files_->AreThere(); }

  void BeginReading(Deadline deadline) override {
    SetTimeout(deadline);
    sql_ << "BEGIN";
    isWriting_ = false;
  }
  void BeginWriting(Deadline deadline) override {
    SetTimeout(deadline);
    sql_ << "BEGIN IMMEDIATE";
    isWriting_ = true;
  }

  /// A change that went into a log that is gone may be lost.
  void Commit() override {
    sql_ << "COMMIT";
    if (!isWriting_ || files_->AreThere()) return;
    throw StoreError("it is not known whether the change was made, the files of the database '" +
                     path_ + "' were replaced meanwhile");
  }

  StoreError Explain(const soci::soci_error& error) const override {
    const auto* known = dynamic_cast<const soci::sqlite3_soci_error*>(&error);
    const int code = known ? known->result() : SQLITE_ERROR;
    const std::string file = "the database file '" + path_ + "' ";
    // No space for the file beside it that connections share is told otherwise than for the rest.
    if (code == SQLITE_IOERR_SHMSIZE) return StoreError(file + "cannot grow: no space is left");
    switch (code & 0xFF) {
      case SQLITE_BUSY:
      case SQLITE_LOCKED:
        return StoreError(file + "is locked by another program");
      case SQLITE_READONLY:
        return StoreError(file + "may not be written");
      case SQLITE_FULL:
        return StoreError(file + "cannot grow: no space is left");
      case SQLITE_NOTADB:
        return StoreError(file + "is no SQLite database");
      case SQLITE_CORRUPT:
        return StoreError(file + "is damaged");
      case SQLITE_CANTOPEN:
        return StoreError(file + "cannot be opened");
      default:
        return StoreError(file + "failed: " + OneLine(error.get_error_message()));
    }
  }

 private:
  void Open(Deadline deadline) {
    sql_.open(soci::sqlite3, ConnectString(path_));
    const auto* backend = static_cast<soci::sqlite3_session_backend*>(sql_.get_backend());
    sqlite_api::sqlite3_extended_result_codes(backend->conn_, 1);
    SetTimeout(deadline);
    RequireKnownSchema(this);

    UseWriteAheadLog(deadline);
    sql_ << "PRAGMA synchronous = FULL";
    sql_ << "PRAGMA foreign_keys = ON";
    UpdateSchema(this, deadline);
  }

  void SetTimeout(Deadline deadline) {
    sql_ << "PRAGMA busy_timeout = " + std::to_string(Remaining(deadline).count());
  }

  /// SQLite does not wait when two connections change to it at once.
  void UseWriteAheadLog(Deadline deadline) {
    while (true) {
      try {
        sql_ << "PRAGMA journal_mode = WAL";
        return;
      } catch (const soci::sqlite3_soci_error& error) {
        const bool isBusy = (error.result() & 0xFF) == SQLITE_BUSY;
        if (!isBusy || std::chrono::steady_clock::now() >= deadline) throw;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  SqliteFiles* const files_;
  const std::string& path_;
  bool hasEntered_ = false;
  bool isWriting_ = false;
};

/// SQLite has one writer at a time: threads of this process wait in the pool, where they are woken
/// at once, and only other processes are waited for by asking again.
class SqliteDatabase : public StoreDatabase {
 public:
  explicit SqliteDatabase(const TaskStoreOptions& options)
      : files_(options.database),
        readers_(options.connections, [this](Deadline deadline) { return Connect(deadline); }),
        writer_(1, [this](Deadline deadline) { return Connect(deadline); }) {}

  ConnectionPool& Readers() override { return readers_; }
  ConnectionPool& Writers() override { return writer_; }
  bool HasOneWriter() const override { return true; }

 private:
  std::unique_ptr<StoreConnection> Connect(Deadline deadline) {
    do {
      auto connection = std::make_unique<SqliteConnection>(&files_);
      if (connection->TryOpen(deadline)) return connection;
      connection.reset();
      // Connections to files that are gone stand in the way; those in use end by themselves.
      readers_.CloseIdle();
      writer_.CloseIdle();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } while (std::chrono::steady_clock::now() < deadline);
    throw StoreError("the files of the database '" + files_.Path() +
                     "' were replaced while they are in use");
  }

  SqliteFiles files_;
  ConnectionPool readers_;
  ConnectionPool writer_;
};

}  // namespace

std::unique_ptr<StoreDatabase> MakeSqliteDatabase(const TaskStoreOptions& options) {
  return std::make_unique<SqliteDatabase>(options);
}
