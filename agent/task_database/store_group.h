#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
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
    Deadline deadline;
    int32_t id = 0;              ///< what became of it
    std::exception_ptr failure;  ///< why it was not made
    bool isTaken = false;
    bool isDone = false;
  };
  /// Makes all tasks until the deadline or, throwing, none. `isCommitting` becomes true before
  /// anything is done after whose failure nobody could tell whether they were made.
  using CreateAll = std::function<void(const std::vector<Pending*>&, Deadline, bool* isCommitting)>;

  explicit CreateGroup(CreateAll createAll);

  /// The new task's identifier. Throws StoreError.
  int32_t Create(const NewTask& task, int64_t nowMs, Deadline deadline);

 private:
  void Lead(std::unique_lock<std::mutex>* lock);
  void WaitForTurn(std::unique_lock<std::mutex>* lock, Pending* mine, Deadline deadline);
  std::vector<Pending*> TakeGroup();
  void MakeOrFail(const std::vector<Pending*>& group) noexcept;
  void MakeOneByOne(const std::vector<Pending*>& group) noexcept;

  const CreateAll createAll_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool hasLeader_ = false;
  std::vector<Pending*> waiting_;
};
