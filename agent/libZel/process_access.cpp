#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "agent/libZel/boundary.h"
#include "agent/libZel/process_load.h"
#include "agent/libZel/process_table.h"
#include "libZel/process.h"

namespace {

using process_table::Entry;
using Clock = std::chrono::steady_clock;
using SharedSample = std::shared_ptr<const ProcessSample>;

constexpr int kLoadBit = ProcessAccess::PROC_ACCESS_ALL_AVAILABLE_AND_COMPUTE_CPU &
                         ~ProcessAccess::PROC_ACCESS_ALL_AVAILABLE;

// Of the whole agent: only its first listing has nothing to compare with.
SampleHistory& History() {
  // Never destroyed: threads may outlive the library's statics.
  static auto* const history = new SampleHistory;
  return *history;
}

std::vector<Entry> ReadAscending() {
  std::vector<Entry> entries;
  if (const Outcome outcome = process_table::Read(&entries); !outcome) {
    LibraryLog().WarningWithNL("listing of the processes failed: %S", outcome.reason);
  }
  std::ranges::sort(entries, {}, [](const Entry& entry) { return entry.info.id; });
  return entries;
}

SharedSample EarlierSample() {
  const SampleTime now = Clock::now();
  SharedSample sample = History().Earlier(now);
  if (sample) return sample;
  std::vector<Entry> entries = ReadAscending();
  const bool failed = entries.empty();
  sample = std::make_shared<const ProcessSample>(now, std::move(entries));
  if (!failed) History().Add(sample);
  return sample;
}

// Each caller waits on its own, without a lock.
void WaitUntilOldEnough(const ProcessSample& sample) {
  const SampleTime time = sample.time + kShortestMeasure;
  if (Clock::now() < time) std::this_thread::sleep_until(time);
}

std::vector<Entry> ListWithLoads(const ProcessSample& earlier) {
  WaitUntilOldEnough(earlier);
  const SampleTime now = Clock::now();
  std::vector<Entry> entries = ReadAscending();
  // After a listing that failed, everything would seem to have begun since.
  if (!entries.empty()) History().Add(std::make_shared<const ProcessSample>(now, entries));

  const uint32_t processors = process_table::ProcessorCount();
  for (Entry& entry : entries) {
    entry.info.currentCpu = LoadSince(earlier, entry, now, processors);
  }
  return entries;
}

std::vector<ProcessInfo> InfosOf(std::vector<Entry> entries) {
  std::vector<ProcessInfo> infos;
  infos.reserve(entries.size());
  for (Entry& entry : entries) {
    entry.info.totalCpu = CpuTimeText(entry.cpuMicroseconds);
    infos.push_back(std::move(entry.info));
  }
  return infos;
}

Outcome EndProcess(uint32_t id) {
  if (id == 0) return FailedBecause("no process has this identifier");
  if (id == process_table::OwnIdentifier()) return FailedBecause("it is the agent itself");
  return process_table::End(id);
}

}  // namespace

struct ProcessAccess::Sample {
  SharedSample earlier;
};

ProcessAccess::ProcessAccess() : ProcessAccess(PROC_ACCESS_ALL_AVAILABLE) {}

ProcessAccess::ProcessAccess(int access) : access_(access) {}

ProcessAccess::~ProcessAccess() = default;

void ProcessAccess::Refresh() {
  if ((access_ & kLoadBit) == 0) return;
  Guarded("measurement of the processor load", 0, [&] {
    sample_ = std::make_unique<Sample>(Sample{EarlierSample()});
    return 0;
  });
}

void ProcessAccess::GetProcessList(std::vector<ProcessInfo>& list) const {
  list = Guarded("listing of the processes", std::vector<ProcessInfo>(), [&] {
    if ((access_ & kLoadBit) == 0) return InfosOf(ReadAscending());
    return InfosOf(ListWithLoads(sample_ ? *sample_->earlier : *EarlierSample()));
  });
}

int ProcessAccess::TerminateProcessByID(uint32_t id) {
  return Guarded("termination of a process", 0, [&] {
    const Outcome outcome = EndProcess(id);
    if (outcome) {
      LibraryLog().DetailWithNL("ended process %u", id);
    } else {
      LibraryLog().WarningWithNL("ending process %u failed: %S", id, outcome.reason);
    }
    return outcome ? 1 : 0;
  });
}
