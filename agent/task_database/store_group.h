#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "agent/task_database/store_connection.h"

/// Makes tasks of several callers in one transaction: where a database writes to the disk once for
/// each transaction, and takes one at a time, callers would wait for the disk one after the other.
/// The first to come makes its task; those that come meanwhile wait for the next transaction, which
/// one of them makes for all.
class CreateGroup {
 public:
  struct Pending {
    const NewTask* task = nullptr;
    int64_t nowMs = 0;
    int32_t id = 0;  ///< what became of it
    bool isTaken = false;
    bool isDone = false;
    std::string error;
  };
  /// Makes all tasks or, throwing StoreError, none.
  using CreateAll = std::function<void(const std::vector<Pending*>&)>;

  explicit CreateGroup(CreateAll createAll);

  /// The new task's identifier. Throws StoreError.
  int32_t Create(const NewTask& task, int64_t nowMs, Deadline deadline);

 private:
  void Lead(std::unique_lock<std::mutex>* lock);
  void WaitForTurn(std::unique_lock<std::mutex>* lock, Pending* mine, Deadline deadline);

  const CreateAll createAll_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool hasLeader_ = false;
  std::vector<Pending*> waiting_;
};
