#include "agent/task_database/store_group.h"

#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <map>
#include <set>
#include <string>
#include <thread>

namespace {

using Group = std::vector<CreateGroup::Pending*>;

constexpr int kThreads = 8;

Deadline Later() {
  return std::chrono::steady_clock::now() + std::chrono::minutes(1);
}

/// What became of each task, by its name: its identifier, or 0.
std::map<std::string, int32_t> CreateInThreads(CreateGroup* group) {
  std::vector<NewTask> tasks(kThreads);
  std::vector<int32_t> ids(kThreads);
  {
    std::latch start(kThreads);
    std::vector<std::jthread> threads;
    for (size_t number = 0; number < kThreads; ++number) {
      tasks[number].name = number == 0 ? "bad" : "good " + std::to_string(number);
      threads.emplace_back([&, number] {
        start.arrive_and_wait();
        try {
          ids[number] = group->Create(tasks[number], 1, Later());
        } catch (const StoreError&) {
        }
      });
    }
  }
  std::map<std::string, int32_t> made;
  for (size_t number = 0; number < kThreads; ++number) made[tasks[number].name] = ids[number];
  return made;
}

bool HasBad(const Group& tasks) {
  for (const CreateGroup::Pending* one : tasks) {
    if (one->task->name == "bad") return true;
  }
  return false;
}

TEST(CreateGroup, ATaskThatCannotBeMadeIsNotTheEndOfThoseBesideIt) {
  bool wasBesideOthers = false;
  // Which tasks come together is up to the system.
  for (int round = 0; round < 1000 && !wasBesideOthers; ++round) {
    int32_t next = 1;
    CreateGroup group([&](const Group& tasks, Deadline, bool*) {
      wasBesideOthers |= tasks.size() > 1 && HasBad(tasks);
      if (HasBad(tasks)) throw StoreError("bad");
      for (CreateGroup::Pending* one : tasks) one->id = next++;
      std::this_thread::yield();
    });
    std::set<int32_t> ids;
    for (const auto& [name, id] : CreateInThreads(&group)) {
      EXPECT_EQ(id == 0, name == "bad") << name;
      ids.insert(id);
    }
    EXPECT_EQ(ids.size(), static_cast<size_t>(kThreads));
  }
  EXPECT_TRUE(wasBesideOthers);
}

TEST(CreateGroup, NothingIsMadeAgainThatMayHaveBeenMade) {
  bool wasBesideOthers = false;
  for (int round = 0; round < 1000 && !wasBesideOthers; ++round) {
    std::map<std::string, int> attempts;
    CreateGroup group([&](const Group& tasks, Deadline, bool* isCommitting) {
      wasBesideOthers |= tasks.size() > 1;
      for (const CreateGroup::Pending* one : tasks) ++attempts[one->task->name];
      *isCommitting = true;
      throw StoreError("it is not known whether the change was made");
    });
    for (const auto& [name, id] : CreateInThreads(&group)) EXPECT_EQ(id, 0) << name;
    for (const auto& [name, count] : attempts) EXPECT_EQ(count, 1) << name;
    EXPECT_EQ(attempts.size(), static_cast<size_t>(kThreads));
  }
  EXPECT_TRUE(wasBesideOthers);
}

TEST(CreateGroup, HandsOnWhateverWasThrown) {
  CreateGroup group([](const Group&, Deadline, bool*) { throw 7; });
  EXPECT_THROW(group.Create({.name = "a"}, 1, Later()), int);
  EXPECT_THROW(group.Create({.name = "a"}, 1, Later()), int);
}

TEST(CreateGroup, MakesTasksUntilTheEarliestDeadline) {
  const Deadline deadline = Later();
  Deadline given;
  CreateGroup group([&](const Group& tasks, Deadline until, bool*) {
    given = until;
    tasks.front()->id = 5;
  });
  EXPECT_EQ(group.Create({.name = "a"}, 1, deadline), 5);
  EXPECT_EQ(given, deadline);
}

}  // namespace
