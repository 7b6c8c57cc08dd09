#include "agent/libZel/progress.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <list>
#include <mutex>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxEnded = 64;
constexpr char kNotFinished[] = "it ended early";

}  // namespace

struct Progress::Work {
  Report ReportNow() const {
    Report report = fixed;
    report.doneBytes = doneBytes.load(std::memory_order_relaxed);
    report.totalBytes = totalBytes.load(std::memory_order_relaxed);
    const auto elapsed = (report.isRunning ? Clock::now() : end) - start;
    report.elapsedMs = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
    return report;
  }

  std::atomic<uint64_t> doneBytes{0};
  std::atomic<uint64_t> totalBytes{0};
  const Clock::time_point start = Clock::now();
  // Changed under the registry's mutex.
  Report fixed;
  Clock::time_point end;
};

namespace {

// `Work` is private to `Progress`: the registry takes it as it comes.
template <typename Work>
struct Registry {
  std::mutex mutex;
  uint64_t lastId = 0;
  std::list<std::shared_ptr<Work>> running;  // by id
  std::deque<std::shared_ptr<Work>> ended;   // by their ends
};

template <typename Work>
Registry<Work>& WorkOfProcess() {
  // Never destroyed: threads may outlive the library's statics.
  static auto* const registry = new Registry<Work>;
  return *registry;
}

}  // namespace

Progress::Progress(Kind kind, const ZelString& name, uint64_t totalBytes)
    : work_(std::make_shared<Work>()) {
  work_->totalBytes.store(totalBytes, std::memory_order_relaxed);
  work_->fixed.kind = kind;
  work_->fixed.name = name;
  auto& registry = WorkOfProcess<Work>();
  const std::lock_guard lock(registry.mutex);
  registry.running.push_back(work_);
  work_->fixed.id = ++registry.lastId;
}

Progress::~Progress() {
  try {
    Finish(kNotFinished);
  } catch (...) {
    // Without memory it stays in the list of what runs.
  }
}

void Progress::SetTotal(uint64_t totalBytes) {
  work_->totalBytes.store(totalBytes, std::memory_order_relaxed);
}

void Progress::Add(uint64_t bytes) {
  work_->doneBytes.fetch_add(bytes, std::memory_order_relaxed);
}

void Progress::Finish(const ZelString& failure) {
  auto& registry = WorkOfProcess<Work>();
  const std::lock_guard lock(registry.mutex);
  Report& report = work_->fixed;
  if (!report.isRunning) return;
  registry.ended.push_back(work_);
  registry.running.remove(work_);
  if (registry.ended.size() > kMaxEnded) registry.ended.pop_front();
  report.isRunning = false;
  work_->end = Clock::now();
  report.failure = failure;
}

std::vector<Progress::Report> Progress::Reports() {
  std::vector<Report> reports;
  auto& registry = WorkOfProcess<Work>();
  {
    const std::lock_guard lock(registry.mutex);
    reports.reserve(registry.running.size() + registry.ended.size());
    for (const auto& work : registry.ended) reports.push_back(work->ReportNow());
    for (const auto& work : registry.running) reports.push_back(work->ReportNow());
  }
  std::sort(reports.begin(), reports.end(),
            [](const Report& a, const Report& b) { return a.id < b.id; });
  return reports;
}
