#include "agent/libZel/process_load.h"

#include <algorithm>
#include <utility>

ProcessSample::ProcessSample(SampleTime at, const std::vector<process_table::Entry>& entries)
    : time(at) {
  processes.reserve(entries.size());
  for (const process_table::Entry& entry : entries) {
    processes.push_back({entry.info.id, entry.startTime, entry.cpuMicroseconds});
  }
}

namespace {

uint64_t CpuAt(const ProcessSample& sample, const process_table::Entry& entry) {
  const auto found =
      std::ranges::lower_bound(sample.processes, entry.info.id, {}, &ProcessSample::Process::id);
  // The same identifier with another start is another process.
  if (found == sample.processes.end() || found->id != entry.info.id) return 0;
  return found->startTime == entry.startTime ? found->cpuMicroseconds : 0;
}

}  // namespace

int32_t LoadSince(const ProcessSample& earlier, const process_table::Entry& entry, SampleTime now,
                  uint32_t processorCount) {
  const uint64_t before = CpuAt(earlier, entry);
  if (now <= earlier.time || entry.cpuMicroseconds <= before) return 0;
  const double available =
      std::chrono::duration<double, std::micro>(now - earlier.time).count() * processorCount;
  const double percent = 100 * static_cast<double>(entry.cpuMicroseconds - before) / available;
  return static_cast<int32_t>(std::min(percent, 100.0) + 0.5);
}

ZelString CpuTimeText(uint64_t microseconds) {
  const uint64_t seconds = microseconds / 1'000'000;
  ZelString text;
  return text.Printf("%u:%02u:%02u", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

void SampleHistory::Add(std::shared_ptr<const ProcessSample> sample) {
  const std::lock_guard lock(mutex_);
  if (newest_ && sample->time < newest_->time + kShortestMeasure) return;
  previous_ = std::exchange(newest_, std::move(sample));
}

std::shared_ptr<const ProcessSample> SampleHistory::Earlier(SampleTime now) const {
  const std::lock_guard lock(mutex_);
  const bool isOldEnough = newest_ && newest_->time + kShortestMeasure <= now;
  return isOldEnough || !previous_ ? newest_ : previous_;
}
