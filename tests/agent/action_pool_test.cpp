#include "agent/libZelCore/action_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::chrono::seconds kPatience{20};

TEST(ActionPool, RunsEveryJobOnce) {
  std::atomic<int> runs{0};
  std::promise<void> done;
  ActionPool pool(4, 1000);
  constexpr int kJobs = 500;
  for (int i = 0; i < kJobs; ++i) {
    ASSERT_TRUE(pool.Submit([&] {
      if (++runs == kJobs) done.set_value();
    }));
  }
  ASSERT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(runs, kJobs);
}

TEST(ActionPool, GrowsWhileItsThreadsWaitForAPerson) {
  std::promise<void> answer;
  const std::shared_future<void> answered = answer.get_future().share();
  std::atomic<int> waiting{0};
  std::promise<void> allWait;
  ActionPool pool(16, 0);  // goes first, and waits for the jobs that use the rest
  for (int i = 0; i < 16; ++i) {
    ASSERT_TRUE(pool.Submit([&] {
      if (++waiting == 16) allWait.set_value();
      answered.wait();
    }));
  }
  EXPECT_EQ(allWait.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_FALSE(pool.Submit([] {})) << "all threads wait and none may queue";
  answer.set_value();
}

TEST(ActionPool, KeepsHalfOfItsThreadsFromJobsThatWaitForPeople) {
  constexpr auto kForPeople = ActionPool::Patience::kForPeople;
  std::promise<void> answer, others;
  const std::shared_future<void> answered = answer.get_future().share();
  std::atomic<int> ended{0};
  ActionPool pool(4, 1000);
  const auto wait = [&] {
    answered.wait();
    ++ended;
  };
  EXPECT_TRUE(pool.Submit(wait, kForPeople));
  EXPECT_TRUE(pool.Submit(wait, kForPeople));
  EXPECT_FALSE(pool.Submit(wait, kForPeople)) << "refused, not left to wait";
  EXPECT_TRUE(pool.Submit([&] { others.set_value(); }));
  EXPECT_EQ(others.get_future().wait_for(kPatience), std::future_status::ready);

  answer.set_value();
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!pool.Submit([] {}, kForPeople) && std::chrono::steady_clock::now() < end)
    std::this_thread::yield();
  EXPECT_GE(ended, 1);
}

TEST(ActionPool, LetsJobsForTheNetworkWaitTheirTurnBesideOthers) {
  constexpr auto kForNetwork = ActionPool::Patience::kForNetwork;
  std::promise<void> answer, bothWait, others, allEnded;
  const std::shared_future<void> answered = answer.get_future().share();
  std::atomic<int> begun{0}, ended{0};
  ActionPool pool(8, 3);
  const auto wait = [&] {
    if (++begun == 2) bothWait.set_value();
    answered.wait();
    if (++ended == 5) allEnded.set_value();
  };
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(pool.Submit(wait, kForNetwork));
  EXPECT_FALSE(pool.Submit(wait, kForNetwork)) << "three may queue";
  ASSERT_EQ(bothWait.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(pool.Submit([&] { others.set_value(); }));
  EXPECT_EQ(others.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(begun, 2);

  answer.set_value();
  EXPECT_EQ(allEnded.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(begun, 5);
}

TEST(ActionPool, TakesAsManyJobsForTheNetworkAtATimeAgainOnceTheOnesBeforeEnded) {
  constexpr auto kForNetwork = ActionPool::Patience::kForNetwork;
  ActionPool pool(4, 0);
  for (int i = 0; i < 100; ++i) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!pool.Submit([] {}, kForNetwork)) {
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      std::this_thread::yield();
    }
  }
}

TEST(ActionPool, LetsTwiceAsManyJobsForTheNetworkWaitAsItHasThreads) {
  constexpr auto kForNetwork = ActionPool::Patience::kForNetwork;
  std::promise<void> answer;
  const std::shared_future<void> answered = answer.get_future().share();
  ActionPool pool(4, 1000);
  for (int i = 0; i < 1 + 8; ++i) {
    EXPECT_TRUE(pool.Submit([answered] { answered.wait(); }, kForNetwork));
  }
  EXPECT_FALSE(pool.Submit([] {}, kForNetwork));
  answer.set_value();
}

TEST(ActionPool, TakesAJobThatARunningOneHandsOnThoughItIsFull) {
  constexpr auto kForNetwork = ActionPool::Patience::kForNetwork;
  std::promise<void> release, handedOn;
  const std::shared_future<void> released = release.get_future().share();
  std::promise<bool> isTaken;
  ActionPool pool(1, 0);
  ASSERT_TRUE(pool.Submit([&] {
    released.wait();
    isTaken.set_value(pool.HandOn([&] { handedOn.set_value(); }, kForNetwork));
  }));
  EXPECT_FALSE(pool.Submit([] {})) << "the only thread is busy and none may queue";
  release.set_value();
  EXPECT_TRUE(isTaken.get_future().get());
  EXPECT_EQ(handedOn.get_future().wait_for(kPatience), std::future_status::ready);
}

TEST(ActionPool, RefusesAJobThatIsHandedOnWhenTooManyOfItsKindWait) {
  constexpr auto kForNetwork = ActionPool::Patience::kForNetwork;
  std::promise<void> answer;
  const std::shared_future<void> answered = answer.get_future().share();
  std::promise<bool> isTaken;
  ActionPool pool(4, 0);
  ASSERT_TRUE(pool.Submit([answered] { answered.wait(); }, kForNetwork));
  ASSERT_TRUE(pool.Submit([&] { isTaken.set_value(pool.HandOn([] {}, kForNetwork)); }));
  EXPECT_FALSE(isTaken.get_future().get());
  answer.set_value();
}

TEST(ActionPool, DropsJobsForTheNetworkThatWaitWhenItStops) {
  constexpr auto kForNetwork = ActionPool::Patience::kForNetwork;
  std::promise<void> release, running;
  std::atomic<int> begun{0};
  ActionPool pool(4, 1000000);  // never full, so that it takes no more when it stops only
  ASSERT_TRUE(pool.Submit(
      [&] {
        ++begun;
        running.set_value();
        release.get_future().wait();
      },
      kForNetwork));
  ASSERT_TRUE(pool.Submit([&] { ++begun; }, kForNetwork));
  ASSERT_EQ(running.get_future().wait_for(kPatience), std::future_status::ready);
  std::thread stopper([&] { pool.Stop(); });
  while (pool.Submit([] {})) std::this_thread::yield();
  release.set_value();
  stopper.join();
  EXPECT_EQ(begun, 1);
}

TEST(ActionPool, QueuesUpToItsLimitAndDropsWhatWaitsWhenItStops) {
  std::promise<void> release, running;
  const std::shared_future<void> released = release.get_future().share();
  ActionPool pool(1, 2);
  ASSERT_TRUE(pool.Submit([&] {
    running.set_value();
    released.wait();
  }));
  ASSERT_EQ(running.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(pool.Submit([] {}));
  EXPECT_TRUE(pool.Submit([] {}));
  EXPECT_FALSE(pool.Submit([] {}));

  auto stopped = std::async(std::launch::async, [&] { pool.Stop(); });
  // Refused from the moment the pool stops, which is before the running job ends.
  while (pool.Submit([] {})) std::this_thread::yield();
  EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  release.set_value();
  stopped.get();
  EXPECT_FALSE(pool.Submit([] {}));
}

TEST(ActionPool, SurvivesAJobThatThrows) {
  std::promise<void> done;
  ActionPool pool(1, 10);
  ASSERT_TRUE(pool.Submit([] { throw std::runtime_error("x"); }));
  ASSERT_TRUE(pool.Submit([&] { done.set_value(); }));
  EXPECT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
}

}  // namespace
