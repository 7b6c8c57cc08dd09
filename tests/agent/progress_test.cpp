#include "agent/libZel/progress.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Kind = Progress::Kind;

constexpr size_t kKeptReports = 64;

// The reports of the whole process, of other tests' work too, hold those of a name.
std::vector<Progress::Report> ReportsOf(const ZelString& name) {
  std::vector<Progress::Report> reports = Progress::Reports();
  std::erase_if(reports, [&](const Progress::Report& report) { return report.name != name; });
  return reports;
}

Progress::Report OnlyReportOf(const ZelString& name) {
  const auto reports = ReportsOf(name);
  EXPECT_EQ(reports.size(), 1u) << std::string(name.Utf8());
  return reports.empty() ? Progress::Report{} : reports[0];
}

TEST(Progress, TellsHowFarWorkIs) {
  Progress progress(Kind::kPack, "tells", 100);
  progress.Add(30);
  progress.Add(12);

  const Progress::Report report = OnlyReportOf("tells");
  EXPECT_EQ(report.kind, Kind::kPack);
  EXPECT_EQ(report.doneBytes, 42u);
  EXPECT_EQ(report.totalBytes, 100u);
  EXPECT_TRUE(report.isRunning);
  EXPECT_EQ(report.failure, "");
  EXPECT_GT(report.id, 0u);
}

TEST(Progress, TakesATotalThatIsKnownLater) {
  Progress progress(Kind::kReceive, "later", 0);
  EXPECT_EQ(OnlyReportOf("later").totalBytes, 0u);
  progress.SetTotal(7);
  EXPECT_EQ(OnlyReportOf("later").totalBytes, 7u);
}

TEST(Progress, RemembersHowWorkEnded) {
  {
    Progress good(Kind::kSend, "good", 1);
    good.Add(1);
    good.Finish("");
    Progress bad(Kind::kExtract, "bad", 1);
    bad.Finish("the disk is full");
    bad.Finish("");
  }
  const Progress::Report good = OnlyReportOf("good");
  EXPECT_FALSE(good.isRunning);
  EXPECT_EQ(good.failure, "");
  EXPECT_EQ(good.doneBytes, 1u);
  const Progress::Report bad = OnlyReportOf("bad");
  EXPECT_FALSE(bad.isRunning);
  EXPECT_EQ(bad.failure, "the disk is full");
}

TEST(Progress, HasFailedWithoutAnEnd) {
  { const Progress progress(Kind::kSend, "early", 0); }
  const Progress::Report report = OnlyReportOf("early");
  EXPECT_FALSE(report.isRunning);
  EXPECT_EQ(report.failure, "it ended early");
}

TEST(Progress, StopsItsClockAtTheEnd) {
  Progress progress(Kind::kSend, "clock", 0);
  progress.Finish("");
  const uint64_t atEnd = OnlyReportOf("clock").elapsedMs;
  EXPECT_EQ(OnlyReportOf("clock").elapsedMs, atEnd);
}

TEST(Progress, NumbersWorkInTheOrderOfItsBeginnings) {
  const Progress first(Kind::kSend, "numbered", 0);
  auto second = std::make_unique<Progress>(Kind::kSend, "numbered", 0);
  const Progress third(Kind::kSend, "numbered", 0);
  second.reset();

  const auto reports = ReportsOf("numbered");
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_LT(reports[0].id, reports[1].id);
  EXPECT_LT(reports[1].id, reports[2].id);
  EXPECT_FALSE(reports[1].isRunning);
}

TEST(Progress, ForgetsTheOldestOfWhatHasEnded) {
  const Progress running(Kind::kSend, "runs on", 0);
  for (size_t i = 0; i <= kKeptReports; ++i) {
    Progress(Kind::kSend, "ended " + ZelString::FromInt64(static_cast<int64_t>(i)), 0).Finish("");
  }
  EXPECT_EQ(ReportsOf("ended 0").size(), 0u);
  EXPECT_EQ(ReportsOf("ended 1").size(), 1u);
  EXPECT_EQ(ReportsOf("ended " + ZelString::FromInt64(kKeptReports)).size(), 1u);
  EXPECT_EQ(ReportsOf("runs on").size(), 1u);
}

TEST(Progress, IsReportedWhileOtherThreadsWork) {
  constexpr int kThreads = 3;
  constexpr int kRounds = 200;
  std::vector<std::thread> threads;
  std::atomic<int> running{kThreads};
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        Progress progress(Kind::kReceive, "threads", 2);
        progress.Add(1);
        progress.Add(1);
        progress.Finish("");
      }
      --running;
    });
  }
  while (running > 0) {
    for (const Progress::Report& report : ReportsOf("threads")) EXPECT_LE(report.doneBytes, 2u);
  }
  for (std::thread& thread : threads) thread.join();
  for (const Progress::Report& report : ReportsOf("threads")) EXPECT_EQ(report.doneBytes, 2u);
}

}  // namespace
