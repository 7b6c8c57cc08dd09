#include "agent/task_database/store_group.h"

#include <algorithm>
#include <utility>

namespace {

constexpr size_t kMostInOne = 64;

/// A place among those who wait, which goes with its owner, however that ends.
class Place {
 public:
  using Waiting = std::vector<CreateGroup::Pending*>;

  Place(Waiting* waiting, CreateGroup::Pending* mine) : waiting_(waiting), mine_(mine) {
    waiting->push_back(mine);
  }
  ~Place() { std::erase(*waiting_, mine_); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

 private:
  Waiting* const waiting_;
  CreateGroup::Pending* const mine_;
};

Deadline EarliestOf(const std::vector<CreateGroup::Pending*>& group) {
  const auto isEarlier = [](const CreateGroup::Pending* a, const CreateGroup::Pending* b) {
    return a->deadline < b->deadline;
  };
  return (*std::min_element(group.begin(), group.end(), isEarlier))->deadline;
}

}  // namespace

CreateGroup::CreateGroup(CreateAll createAll) : createAll_(std::move(createAll)) {}

int32_t CreateGroup::Create(const NewTask& task, int64_t nowMs, Deadline deadline) {
  Pending mine;
  mine.task = &task;
  mine.nowMs = nowMs;
  mine.deadline = deadline;

  std::unique_lock lock(mutex_);
  const Place place(&waiting_, &mine);
  while (!mine.isDone) {
    if (hasLeader_) {
      WaitForTurn(&lock, &mine, deadline);
    } else {
      Lead(&lock);
    }
  }
  if (mine.failure) std::rethrow_exception(mine.failure);
  return mine.id;
}

std::vector<CreateGroup::Pending*> CreateGroup::TakeGroup() {
  const auto end =
      waiting_.begin() + static_cast<std::ptrdiff_t>(std::min(waiting_.size(), kMostInOne));
  std::vector<Pending*> group(waiting_.begin(), end);
  waiting_.erase(waiting_.begin(), end);
  for (Pending* one : group) one->isTaken = true;
  return group;
}

/// Makes the tasks that wait now, the caller's own perhaps among them.
void CreateGroup::Lead(std::unique_lock<std::mutex>* lock) {
  const std::vector<Pending*> group = TakeGroup();
  hasLeader_ = true;
  lock->unlock();

  MakeOrFail(group);

  lock->lock();
  hasLeader_ = false;
  for (Pending* one : group) one->isDone = true;
  changed_.notify_all();
}

void CreateGroup::MakeOrFail(const std::vector<Pending*>& group) noexcept {
  bool isCommitting = false;
  try {
    createAll_(group, EarliestOf(group), &isCommitting);
    return;
  } catch (...) {
    for (Pending* one : group) one->failure = std::current_exception();
  }
  // What is wrong with one task must not be the others' end, as long as none can be made twice.
  if (group.size() > 1 && !isCommitting) MakeOneByOne(group);
}

void CreateGroup::MakeOneByOne(const std::vector<Pending*>& group) noexcept {
  for (Pending* one : group) {
    bool isCommitting = false;
    try {
      createAll_({one}, one->deadline, &isCommitting);
      one->failure = nullptr;
    } catch (...) {
      one->failure = std::current_exception();
    }
  }
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
    throw StoreError("the database is busy: other changes did not end in time");
  }
}
