#include "agent/task_database/store_group.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace {

constexpr size_t kMostInOne = 64;

}  // namespace

CreateGroup::CreateGroup(CreateAll createAll) : createAll_(std::move(createAll)) {}

int32_t CreateGroup::Create(const NewTask& task, int64_t nowMs, Deadline deadline) {
  Pending mine;
  mine.task = &task;
  mine.nowMs = nowMs;

  std::unique_lock lock(mutex_);
  waiting_.push_back(&mine);
  while (!mine.isDone) {
    if (hasLeader_) {
      WaitForTurn(&lock, &mine, deadline);
    } else {
      Lead(&lock);
    }
  }
  if (!mine.error.empty()) throw StoreError(mine.error);
  return mine.id;
}

/// Makes the tasks that wait now, the caller's own perhaps among them.
void CreateGroup::Lead(std::unique_lock<std::mutex>* lock) {
  const auto end =
      waiting_.begin() + static_cast<std::ptrdiff_t>(std::min(waiting_.size(), kMostInOne));
  const std::vector<Pending*> group(waiting_.begin(), end);
  waiting_.erase(waiting_.begin(), end);
  for (Pending* one : group) one->isTaken = true;
  hasLeader_ = true;
  lock->unlock();

  std::string error;
  try {
    createAll_(group);
  } catch (const std::exception& failure) {
    error = failure.what();
  }

  lock->lock();
  hasLeader_ = false;
  for (Pending* one : group) {
    one->error = error;
    one->isDone = true;
  }
  changed_.notify_all();
}

void CreateGroup::WaitForTurn(std::unique_lock<std::mutex>* lock, Pending* mine,
                              Deadline deadline) {
  const auto mayGoOn = [this, mine] { return mine->isDone || !hasLeader_; };
  // What another one is making for this caller cannot be called off; it has a deadline of its own.
  while (!changed_.wait_until(*lock, deadline, mayGoOn)) {
    if (mine->isTaken) {
      changed_.wait(*lock, mayGoOn);
      return;
    }
    std::erase(waiting_, mine);
    throw StoreError("the database is busy: other changes did not end in time");
  }
}
