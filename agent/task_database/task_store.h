#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/task_database/task.h"

/// The database cannot be used, or did not do what was asked; the sentence says why and holds no
/// password. Whatever was asked for has then not happened, but for one case: when the connection
/// breaks while a change is being committed, nobody can tell.
struct StoreError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct TaskStoreOptions {
  /// A file's full path, for the embedded database (SQLite; the directory is made). Anything else
  /// is what PostgreSQL's client library takes: a URL "postgresql://..." or "key=value ...".
  std::string database = {};
  uint32_t connections = 8;     ///< to PostgreSQL; the embedded one reads on as many
  uint32_t timeoutMs = 30'000;  ///< how long one operation may wait for locks and connections
};

/// The tasks of a fleet, in SQLite or PostgreSQL.
///
/// A change is on the disk when its function returns. Connections are made when they are first
/// needed, and anew when they broke. The first one brings the database's schema up to date; a
/// database whose schema is newer than this program's is not touched.
///
/// Threads: all functions may be called from several at once.
class TaskStore {
 public:
  /// Makes no connection yet.
  explicit TaskStore(TaskStoreOptions options);
  ~TaskStore();
  TaskStore(const TaskStore&) = delete;
  TaskStore& operator=(const TaskStore&) = delete;

  /// Opens a task; its identifier. Throws StoreError.
  int32_t Create(const NewTask& task, int64_t nowMs);

  enum class Change {
    kDone,
    kNoSuchTask,
    kRefused,        ///< by `mayChange`
    kAlreadyClosed,  ///< told only to those who may change the task
  };
  /// Decides on a task as it stands in the database, without its notes; no other change comes in
  /// between.
  using MayChange = std::function<bool(const Task&)>;

  /// Throw StoreError.
  Change Close(int32_t id, int64_t nowMs, const MayChange& mayChange);
  Change AddNote(int32_t id, const std::string& author, const std::string& text, int64_t nowMs,
                 const MayChange& mayChange);

  /// The newest first, with their notes, as many as the bounds allow. Throws StoreError.
  std::vector<Task> List(const TaskFilter& filter, const TaskListBounds& bounds);

  /// Throws StoreError unless tasks could be read and written now: the database is there, may be
  /// written, and has this program's schema.
  void CheckUsable();

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation_;
};
