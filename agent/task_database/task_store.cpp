#include "agent/task_database/task_store.h"

#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

#include "agent/task_database/store_database.h"
#include "agent/task_database/store_group.h"
#include "agent/task_database/store_list.h"
#include "agent/task_database/store_tasks.h"
#include "agent/task_database/store_text.h"

namespace {

void RequireTexts(const NewTask& task) {
  RequireStorable(task.name, "name");
  RequireStorable(task.description, "description");
  RequireStorable(task.priority, "priority");
  RequireStorable(task.requester, "requester");
  RequireStorable(task.language, "language");
  RequireStorable(task.userEmail, "user's e-mail address");
  RequireStorable(task.userDomain, "user's domain");
  RequireStorable(task.userLogin, "user's login");
  RequireStorable(task.deviceGuid, "device's identity");
  RequireStorable(task.agent, "agent's name");
  RequireStorable(task.consoleUser, "console user");
  RequireStorable(task.note, "note");
}

void RequireTexts(const TaskFilter& filter) {
  RequireStorable(filter.requester, "requester");
  RequireStorable(filter.state, "state");
  RequireStorable(filter.priority, "priority");
  RequireStorable(filter.deviceGuid, "device's identity");
}

TaskStore::Change Decide(const std::optional<Task>& task, const TaskStore::MayChange& mayChange) {
  if (!task) return TaskStore::Change::kNoSuchTask;
  if (!mayChange(*task)) return TaskStore::Change::kRefused;
  if (task->state == TaskState::kClosed) return TaskStore::Change::kAlreadyClosed;
  return TaskStore::Change::kDone;
}

/// Runs work in transactions of one database.
class Transactions {
 public:
  explicit Transactions(TaskStoreOptions options) : options_(std::move(options)) {}

  /// Made late, as making it may fail.
  StoreDatabase& Database() {
    const std::lock_guard lock(mutex_);
    if (!database_) {
      database_ = IsPostgres(options_.database) ? MakePostgresDatabase(options_)
                                                : MakeSqliteDatabase(options_);
    }
    return *database_;
  }

  Deadline DeadlineFromNow() const {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(options_.timeoutMs);
  }

  /// What `work` returns for a connection in a transaction, which is then committed.
  template <typename Work>
  auto Read(const Work& work) {
    return Run(&Database().Readers(), &StoreConnection::BeginReading, work, DeadlineFromNow());
  }
  template <typename Work>
  auto Write(const Work& work) {
    return Write(work, DeadlineFromNow());
  }
  template <typename Work>
  auto Write(const Work& work, Deadline deadline) {
    return Run(&Database().Writers(), &StoreConnection::BeginWriting, work, deadline);
  }

 private:
  using Begin = void (StoreConnection::*)(Deadline);

  template <typename Work>
  std::invoke_result_t<Work, StoreConnection*> Run(ConnectionPool* pool, Begin begin,
                                                   const Work& work, Deadline deadline) {
    while (true) {
      ConnectionPool::Loan connection = pool->Take(deadline);
      if (!TryBegin(connection, begin, deadline)) {
        connection.Close();
        // Those that were idle as long as this one broke with it.
        pool->CloseIdle();
        continue;
      }
      try {
        auto result = work(&*connection);
        connection->Commit();
        return result;
      } catch (const soci::soci_error& error) {
        throw connection->Explain(error);
      }
    }
  }

  /// False when the connection turned out to be broken, before anything was done with it, and a new
  /// one may do.
  static bool TryBegin(const ConnectionPool::Loan& connection, Begin begin, Deadline deadline) {
    try {
      ((*connection).*begin)(deadline);
      return true;
    } catch (const soci::soci_error& error) {
      const bool isBroken = !connection.IsNew() && !connection->IsAlive();
      if (!isBroken || std::chrono::steady_clock::now() >= deadline) {
        throw connection->Explain(error);
      }
    }
    return false;
  }

  const TaskStoreOptions options_;
  std::mutex mutex_;
  std::unique_ptr<StoreDatabase> database_;
};

}  // namespace

class TaskStore::Implementation : public Transactions {
 public:
  explicit Implementation(TaskStoreOptions options)
      : Transactions(std::move(options)),
        group_([this](const std::vector<CreateGroup::Pending*>& tasks, Deadline deadline,
                      bool* isCommitting) { CreateAll(tasks, deadline, isCommitting); }) {}

  int32_t Create(const NewTask& task, int64_t nowMs) {
    if (Database().HasOneWriter()) return group_.Create(task, nowMs, DeadlineFromNow());
    return Write([&](StoreConnection* connection) { return InsertTask(connection, task, nowMs); });
  }

 private:
  void CreateAll(const std::vector<CreateGroup::Pending*>& tasks, Deadline deadline,
                 bool* isCommitting) {
    const auto insertAll = [&](StoreConnection* connection) {
      for (CreateGroup::Pending* one : tasks) {
        one->id = InsertTask(connection, *one->task, one->nowMs);
      }
      return *isCommitting = true;
    };
    Write(insertAll, deadline);
  }

  CreateGroup group_;
};

TaskStore::TaskStore(TaskStoreOptions options)
    : implementation_(std::make_unique<Implementation>(std::move(options))) {}

TaskStore::~TaskStore() = default;

int32_t TaskStore::Create(const NewTask& task, int64_t nowMs) {
  RequireTexts(task);
  return implementation_->Create(task, nowMs);
}

TaskStore::Change TaskStore::Close(int32_t id, int64_t nowMs, const MayChange& mayChange) {
  return implementation_->Write([&](StoreConnection* connection) {
    const Change verdict = Decide(LockTask(connection, id), mayChange);
    if (verdict == Change::kDone) CloseTask(connection, id, nowMs);
    return verdict;
  });
}

TaskStore::Change TaskStore::AddNote(int32_t id, const std::string& author, const std::string& text,
                                     int64_t nowMs, const MayChange& mayChange) {
  RequireStorable(author, "note's author");
  RequireStorable(text, "note");
  return implementation_->Write([&](StoreConnection* connection) {
    const Change verdict = Decide(LockTask(connection, id), mayChange);
    if (verdict == Change::kDone) InsertNote(connection, id, {author, nowMs, text});
    return verdict;
  });
}

std::vector<Task> TaskStore::List(const TaskFilter& filter, const TaskListBounds& bounds) {
  RequireTexts(filter);
  return implementation_->Read(
      [&](StoreConnection* connection) { return ListTasks(connection, filter, bounds); });
}

void TaskStore::CheckUsable() {
  implementation_->Write([](StoreConnection* connection) {
    TryChanges(connection);
    return true;
  });
}
