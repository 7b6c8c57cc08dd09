#include "agent/libZel/process_load.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace {

using process_table::Entry;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr SampleTime kStart{std::chrono::hours(1)};

Entry EntryOf(uint32_t id, uint64_t startTime, uint64_t cpuMicroseconds) {
  Entry entry;
  entry.info.id = id;
  entry.startTime = startTime;
  entry.cpuMicroseconds = cpuMicroseconds;
  return entry;
}

std::shared_ptr<const ProcessSample> SampleAt(SampleTime time) {
  return std::make_shared<const ProcessSample>(time, std::vector<Entry>());
}

// The load a second after a sample in which process 7, started at 70, had used `before`.
int32_t LoadAfterSecond(uint64_t before, const Entry& entry, uint32_t processors) {
  const std::vector<Entry> entries{EntryOf(3, 30, 1), EntryOf(7, 70, before), EntryOf(9, 90, 1)};
  return LoadSince(ProcessSample(kStart, entries), entry, kStart + seconds(1), processors);
}

TEST(LoadSince, IsAShareOfAllProcessors) {
  EXPECT_EQ(LoadAfterSecond(5'000'000, EntryOf(7, 70, 6'000'000), 1), 100);
  EXPECT_EQ(LoadAfterSecond(5'000'000, EntryOf(7, 70, 6'000'000), 4), 25);
  EXPECT_EQ(LoadAfterSecond(5'000'000, EntryOf(7, 70, 9'000'000), 4), 100);
  EXPECT_EQ(LoadAfterSecond(5'000'000, EntryOf(7, 70, 5'000'000), 4), 0);
}

TEST(LoadSince, IsRounded) {
  EXPECT_EQ(LoadAfterSecond(0, EntryOf(7, 70, 14'999), 1), 1);
  EXPECT_EQ(LoadAfterSecond(0, EntryOf(7, 70, 15'000), 1), 2);
  EXPECT_EQ(LoadAfterSecond(0, EntryOf(7, 70, 4'999), 1), 0);
}

TEST(LoadSince, CountsAllTimeOfAProcessThatStartedSince) {
  EXPECT_EQ(LoadAfterSecond(0, EntryOf(8, 80, 500'000), 1), 50);
  EXPECT_EQ(LoadAfterSecond(0, EntryOf(10, 80, 500'000), 1), 50);
}

TEST(LoadSince, KnowsThatAnIdentifierWasGivenToAnotherProcess) {
  EXPECT_EQ(LoadAfterSecond(400'000, EntryOf(7, 71, 500'000), 1), 50);
}

TEST(LoadSince, StaysWithinAHundredPercent) {
  EXPECT_EQ(LoadAfterSecond(0, EntryOf(7, 70, UINT64_MAX), 1), 100);
  EXPECT_EQ(LoadAfterSecond(10, EntryOf(7, 70, 9), 1), 0);
}

TEST(LoadSince, IsZeroWhereNoTimeHasPassed) {
  const ProcessSample sample(kStart, {});
  EXPECT_EQ(LoadSince(sample, EntryOf(7, 70, 1'000), kStart, 1), 0);
  EXPECT_EQ(LoadSince(sample, EntryOf(7, 70, 1'000), kStart - seconds(1), 1), 0);
}

TEST(CpuTimeText, HasTwoDigitsForAllButTheHours) {
  EXPECT_EQ(CpuTimeText(0), "0:00:00");
  EXPECT_EQ(CpuTimeText(1'999'999), "0:00:01");
  EXPECT_EQ(CpuTimeText(59'000'000), "0:00:59");
  EXPECT_EQ(CpuTimeText((3600ULL * 12 + 34 * 60 + 56) * 1'000'000), "12:34:56");
  EXPECT_EQ(CpuTimeText(3600ULL * 12345 * 1'000'000), "12345:00:00");
}

TEST(SampleHistory, HasNothingAtFirst) {
  EXPECT_EQ(SampleHistory().Earlier(kStart), nullptr);
}

TEST(SampleHistory, GivesTheOnlySampleHoweverYoung) {
  SampleHistory history;
  const auto first = SampleAt(kStart);
  history.Add(first);
  EXPECT_EQ(history.Earlier(kStart), first);
  EXPECT_EQ(history.Earlier(kStart + std::chrono::hours(20)), first);
}

TEST(SampleHistory, GoesOneBackWhenTheNewestIsTooYoung) {
  SampleHistory history;
  const auto first = SampleAt(kStart);
  const auto second = SampleAt(kStart + seconds(1));
  history.Add(first);
  history.Add(second);
  EXPECT_EQ(history.Earlier(kStart + seconds(1) + milliseconds(99)), first);
  EXPECT_EQ(history.Earlier(kStart + seconds(1) + milliseconds(100)), second);
}

TEST(SampleHistory, AlwaysHasOneThatIsOldEnoughWhenListedQuickly) {
  SampleHistory history;
  history.Add(SampleAt(kStart));
  for (int step = 20; step < 1000; ++step) {
    const SampleTime now = kStart + milliseconds(5) * step;
    const auto earlier = history.Earlier(now);
    ASSERT_NE(earlier, nullptr);
    EXPECT_GE(now - earlier->time, milliseconds(100)) << step;
    EXPECT_LE(now - earlier->time, milliseconds(200)) << step;
    history.Add(SampleAt(now));
  }
}

TEST(SampleHistory, LeavesOutASampleThatCameTooLate) {
  SampleHistory history;
  const auto first = SampleAt(kStart);
  history.Add(first);
  history.Add(SampleAt(kStart - seconds(5)));
  EXPECT_EQ(history.Earlier(kStart + seconds(1)), first);
}

}  // namespace
