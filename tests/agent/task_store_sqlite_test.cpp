#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <soci/sqlite3/soci-sqlite3.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "agent/task_database/store_database.h"
#include "tests/agent/task_store_database.h"
#include "tests/agent/temporary_directory.h"

namespace {

using testing::HasSubstr;

class SqliteTestDatabase : public TestDatabase {
 public:
  TaskStoreOptions Options() const override { return {.database = Path()}; }
  std::unique_ptr<soci::session> Connect() const override {
    auto session = std::make_unique<soci::session>(soci::sqlite3, Path());
    *session << "PRAGMA busy_timeout = 10000";
    *session << "PRAGMA foreign_keys = ON";
    return session;
  }
  const Dialect& SqlDialect() const override { return kSqliteDialect; }
  std::string Explain(const std::string& query) const override {
    const std::unique_ptr<soci::session> session = Connect();
    const soci::rowset<soci::row> rows = session->prepare << "EXPLAIN QUERY PLAN " + query;
    std::string plan;
    for (const soci::row& row : rows) plan += row.get<std::string>("detail") + "\n";
    return plan;
  }
  void UseUpIdentifiers() const override {
    *Connect() << "UPDATE sqlite_sequence SET seq = 2147483646 WHERE name = 'tasks'";
  }

 private:
  std::string Path() const { return (directory_.Native() / "made" / "tasks.db").string(); }
  TemporaryDirectory directory_;
};

class SqliteStore : public testing::Test {
 protected:
  std::string Path() const { return (directory_.Native() / "tasks.db").string(); }
  TaskStoreOptions Options() const { return {.database = Path(), .timeoutMs = 200}; }

  TemporaryDirectory directory_;
};

TEST_F(SqliteStore, ItsFilesAreTheOwnersAlone) {
  const std::filesystem::path path = directory_.Native() / "one" / "two" / "tasks.db";
  TaskStore store({.database = path.string()});
  store.Create({.name = "a"}, 1);
  const auto mode = [](const std::filesystem::path& of) {
    struct stat facts = {};
    EXPECT_EQ(stat(of.c_str(), &facts), 0) << of;
    return facts.st_mode & 0777;
  };
  EXPECT_EQ(mode(path), 0600u);
  EXPECT_EQ(mode(path.string() + "-wal"), 0600u);
  EXPECT_EQ(mode(path.parent_path()), 0700u);
  EXPECT_EQ(mode(path.parent_path().parent_path()), 0700u);
}

TEST_F(SqliteStore, WritesAheadAndToTheDisk) {
  TaskStore(Options()).Create({.name = "a"}, 1);
  std::string mode;
  soci::session(soci::sqlite3, Path()) << "PRAGMA journal_mode", soci::into(mode);
  EXPECT_EQ(mode, "wal");
}

TEST_F(SqliteStore, ALockedFileIsAnErrorUntilItIsFree) {
  TaskStore store(Options());
  store.Create({.name = "a"}, 1);
  soci::session other(soci::sqlite3, Path());
  other << "BEGIN IMMEDIATE";
  EXPECT_THAT(WhatInTime([&] { store.Create({.name = "b"}, 1); }),
              HasSubstr("locked by another program"));
  EXPECT_THAT(WhatInTime([&] { store.CheckUsable(); }), HasSubstr("locked by another program"));
  EXPECT_EQ(store.List({}, {}).size(), 1u);

  other << "COMMIT";
  EXPECT_EQ(store.Create({.name = "b"}, 1), 2);
}

TEST_F(SqliteStore, AFileThatIsNoDatabaseIsNotTouched) {
  const std::string content(5000, 'x');
  WriteFile(Path(), content);
  TaskStore store(Options());
  EXPECT_THAT(WhatInTime([&] { store.Create({.name = "a"}, 1); }),
              HasSubstr("is no SQLite database"));
  EXPECT_THAT(WhatInTime([&] { store.List({}, {}); }), HasSubstr("is no SQLite database"));
  EXPECT_EQ(ReadFile(Path()), content);
  EXPECT_EQ(directory_.CountEntries(), 1u);
}

TEST_F(SqliteStore, ADirectoryThatCannotBeMadeIsNamed) {
  WriteFile(directory_.Native() / "file", "");
  TaskStore store({.database = (directory_.Native() / "file" / "tasks.db").string()});
  EXPECT_THAT(WhatInTime([&] { store.CheckUsable(); }), HasSubstr("/file"));
}

TEST_F(SqliteStore, AFileThatWasRemovedIsMadeAnew) {
  TaskStore store(Options());
  store.Create({.name = "a"}, 1);
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(Path() + suffix);
  EXPECT_EQ(store.Create({.name = "b"}, 1), 1);
  EXPECT_EQ(store.List({}, {}).at(0).name, "b");
  EXPECT_TRUE(std::filesystem::exists(Path()));
}

/// What another process gets for a query; it then closes the database.
std::string AskFromOutside(const std::string& path, const std::string& query) {
  const std::string command = "/usr/bin/python3 -c \"import sqlite3; c = sqlite3.connect('" + path +
                              "'); print(c.execute('" + query + "').fetchall()); c.close()\"";
  FILE* const output = popen(command.c_str(), "r");
  EXPECT_NE(output, nullptr);
  if (!output) return {};
  std::string text;
  for (int letter = std::fgetc(output); letter != EOF; letter = std::fgetc(output)) {
    text += static_cast<char>(letter);
  }
  EXPECT_EQ(pclose(output), 0);
  return text;
}

/// Lets the next process that closes the database take itself for its last user.
void ForgetLocks(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(file, 0);
  close(file);
}

void RemoveLog(const std::string& path) {
  for (const char* suffix : {"-wal", "-shm"}) {
    EXPECT_TRUE(std::filesystem::remove(path + suffix));
  }
}

constexpr const char* kNames = "SELECT name FROM tasks ORDER BY id";

TEST_F(SqliteStore, OtherProgramsLeaveTheLogWhateverThisProcessClosed) {
  TaskStore store(Options());
  for (const char* expected : {"[('a',)]\n", "[('a',), ('a',)]\n"}) {
    store.Create({.name = "a"}, 1);
    store.List({}, {});
    ForgetLocks(Path());
    EXPECT_EQ(AskFromOutside(Path(), kNames), expected);
    EXPECT_TRUE(std::filesystem::exists(Path() + "-wal"));
  }
}

TEST_F(SqliteStore, TidiesUpWhenItIsClosed) {
  {
    TaskStore store(Options());
    store.Create({.name = "a"}, 1);
    store.List({}, {});
  }
  EXPECT_EQ(directory_.CountEntries(), 1u);
  EXPECT_EQ(AskFromOutside(Path(), kNames), "[('a',)]\n");
}

TEST_F(SqliteStore, ALogThatWasRemovedIsMadeAnew) {
  TaskStore store(Options());
  store.Create({.name = "a"}, 1);
  store.List({}, {});
  RemoveLog(Path());
  store.Create({.name = "b"}, 1);
  EXPECT_EQ(store.List({}, {}).size(), 2u);
  EXPECT_EQ(AskFromOutside(Path(), kNames), "[('a',), ('b',)]\n");
  RemoveLog(Path());
  EXPECT_EQ(store.List({}, {}).size(), 2u);
}

TEST_F(SqliteStore, ALogThatWasRemovedIsNoticedByTheFirstList) {
  TaskStore store(Options());
  store.Create({.name = "a"}, 1);
  RemoveLog(Path());
  EXPECT_EQ(store.List({}, {}).size(), 1u);
  EXPECT_EQ(store.Create({.name = "b"}, 1), 2);
}

TEST_F(SqliteStore, MayBeALinkToTheFile) {
  const std::filesystem::path target = directory_.Native() / "elsewhere" / "real.db";
  std::filesystem::create_directory(target.parent_path());
  std::filesystem::create_symlink(target, Path());
  { std::ofstream(target).flush(); }
  TaskStore store(Options());
  EXPECT_EQ(store.Create({.name = "a"}, 1), 1);
  ForgetLocks(Path());
  EXPECT_EQ(AskFromOutside(target.string(), kNames), "[('a',)]\n");
  EXPECT_EQ(store.Create({.name = "a"}, 1), 2);
  EXPECT_EQ(store.List({}, {}).size(), 2u);
}

TEST_F(SqliteStore, AChangeDuringWhichTheLogWasRemovedIsNotConfirmed) {
  TaskStore store(Options());
  store.Create({.name = "a"}, 1);
  store.List({}, {});
  const auto removeLog = [this](const Task&) {
    RemoveLog(Path());
    return true;
  };
  EXPECT_THAT(WhatInTime([&] { store.Close(1, 2, removeLog); }), HasSubstr("it is not known"));
  EXPECT_EQ(store.Create({.name = "b"}, 1), 2);
  EXPECT_EQ(store.List({}, {}).size(), 2u);
  EXPECT_EQ(AskFromOutside(Path(), kNames), "[('a',), ('b',)]\n");
}

TEST_F(SqliteStore, NothingConfirmedIsLostWhileOtherProgramsComeAndGo) {
  TaskStore store({.database = Path(), .connections = 4});
  store.Create({.name = "first"}, 1);
  std::atomic<bool> isOver = false;
  std::atomic<int> confirmed = 1;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!isOver) {
        store.Create({.name = "a"}, 1);
        ++confirmed;
        store.List({}, {.tasks = 1});
      }
    });
  }
  for (int i = 0; i < 5; ++i) {
    ForgetLocks(Path());
    AskFromOutside(Path(), "SELECT MAX(id) FROM tasks");
  }
  isOver = true;
  threads.clear();
  EXPECT_EQ(AskFromOutside(Path(), "SELECT COUNT(*) FROM tasks"),
            "[(" + std::to_string(confirmed) + ",)]\n");
  EXPECT_EQ(AskFromOutside(Path(), "PRAGMA integrity_check"), "[('ok',)]\n");
}

TEST_F(SqliteStore, OddPathsAreFiles) {
  for (const char* name : {"a b.db", "host=x dbname=y", "\"quoted\".db", "100%?x.db"}) {
    const std::string path = (directory_.Native() / name).string();
    TaskStore store({.database = path});
    EXPECT_EQ(store.Create({.name = "a"}, 1), 1) << name;
    EXPECT_TRUE(std::filesystem::exists(path)) << name;
  }
}

/// The file system's rights of a user who owns nothing, for this thread: root may write everything.
class OtherUser {
 public:
  OtherUser() : before_(setfsuid(65534)) {}
  ~OtherUser() { setfsuid(static_cast<uid_t>(before_)); }

 private:
  const int before_;
};

TEST_F(SqliteStore, AFileThatMayNotBeWrittenIsAnErrorUntilItMay) {
  TaskStore(Options()).Create({.name = "a"}, 1);
  std::filesystem::permissions(directory_.Native(), std::filesystem::perms(0555));
  std::filesystem::permissions(Path(), std::filesystem::perms(0444));
  TaskStore store(Options());
  {
    const OtherUser rights;
    EXPECT_THAT(WhatInTime([&] { store.Create({.name = "b"}, 1); }), HasSubstr(Path()));
    EXPECT_THAT(WhatInTime([&] { store.CheckUsable(); }), HasSubstr(Path()));
  }
  std::filesystem::permissions(directory_.Native(), std::filesystem::perms(0700));
  std::filesystem::permissions(Path(), std::filesystem::perms(0600));
  EXPECT_EQ(store.Create({.name = "b"}, 1), 2);
}

std::atomic<bool> diskIsFull = false;

ssize_t WriteUnlessFull(int file, const void* bytes, size_t count, off_t at) {
  if (!diskIsFull) return pwrite(file, bytes, count, at);
  errno = ENOSPC;
  return -1;
}

/// SQLite's calls of the system can be replaced, for tests like this one.
class FullDisk {
 public:
  FullDisk() {
    using sqlite_api::sqlite3_syscall_ptr;
    sqlite_api::sqlite3_vfs* files = sqlite_api::sqlite3_vfs_find(nullptr);
    for (const char* call : {"pwrite", "pwrite64"}) {
      files->xSetSystemCall(files, call, reinterpret_cast<sqlite3_syscall_ptr>(&WriteUnlessFull));
    }
    diskIsFull = true;
  }
  ~FullDisk() {
    diskIsFull = false;
    sqlite_api::sqlite3_vfs* files = sqlite_api::sqlite3_vfs_find(nullptr);
    files->xSetSystemCall(files, nullptr, nullptr);
  }
};

TEST_F(SqliteStore, AFullDiskIsAnErrorUntilThereIsSpace) {
  TaskStore store(Options());
  store.Create({.name = "a"}, 1);
  {
    const FullDisk full;
    EXPECT_THAT(WhatInTime([&] { store.Create({.name = "b"}, 1); }), HasSubstr("no space is left"));
    EXPECT_THAT(WhatInTime([&] { store.CheckUsable(); }), HasSubstr("no space is left"));
    EXPECT_THAT(WhatInTime([&] { TaskStore(Options()).Create({.name = "b"}, 1); }),
                HasSubstr("no space is left"));
    EXPECT_THAT(WhatInTime([&] { store.Close(1, 2, [](const Task&) { return true; }); }),
                HasSubstr("no space is left"));
  }
  EXPECT_EQ(store.Create({.name = "b"}, 1), 2);
  EXPECT_EQ(store.List({.state = "open"}, {}).size(), 2u);
}

}  // namespace

std::unique_ptr<TestDatabase> TestDatabase::Make() {
  return std::make_unique<SqliteTestDatabase>();
}
