#include "agent/zelctl/transfer_progress.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <utility>

#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/interruption.h"
#include "agent/zelctl/text_output.h"
#include "libZel/string.h"

namespace {

constexpr size_t kColumns = 79;
constexpr size_t kNameColumns = 24;
constexpr size_t kBarColumns = 20;

uint64_t CountOf(const ZelContainer& row, const char* key) {
  int64_t value = 0;
  row.GetInt64(key, &value, kNoIndex);
  return static_cast<uint64_t>(std::max<int64_t>(value, 0));
}

WorkReport ReadReport(const ZelContainer& row) {
  WorkReport report;
  row.GetInt64("Id", &report.id, kNoIndex);
  report.kind = TextOf(row, "Kind");
  report.name = TextOf(row, "Name");
  report.doneBytes = CountOf(row, "DoneBytes");
  report.totalBytes = CountOf(row, "TotalBytes");
  report.elapsedMs = CountOf(row, "ElapsedMs");
  row.GetBool("Running", &report.isRunning, kNoIndex);
  report.failure = TextOf(row, "Failure");
  return report;
}

std::vector<WorkReport> AskForWork(AgentClient& agent) {
  const ActionReply reply = Invoke(agent, kGetProgress, ZelContainer());
  RequireSuccess(kGetProgress, reply);
  std::vector<WorkReport> reports;
  ZelContainer row;
  for (uint32_t i = 0; reply.container.GetContainer("Values", &row, i); ++i) {
    reports.push_back(ReadReport(row));
  }
  return reports;
}

bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

size_t ColumnsOf(const std::string& text) {
  return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), IsContinuation));
}

/// The first characters of a text, one for each column.
std::string Cut(const std::string& text, size_t columns) {
  size_t at = 0;
  for (; at < text.size(); ++at) {
    if (IsContinuation(text[at])) continue;
    if (columns == 0) break;
    --columns;
  }
  return text.substr(0, at);
}

std::string FormatBar(double part) {
  const auto full = static_cast<size_t>(part * kBarColumns);
  const auto percent = static_cast<int>(part * 100);
  char number[16];
  std::snprintf(number, sizeof number, "%3d%%", percent);
  return "[" + std::string(full, '#') + std::string(kBarColumns - full, '.') + "] " + number;
}

std::string FormatRate(const WorkReport& report) {
  if (report.elapsedMs == 0) return {};
  const double rate =
      static_cast<double>(report.doneBytes) / static_cast<double>(report.elapsedMs) * kMsPerSecond;
  return "  " + FormatShortSize(static_cast<uint64_t>(rate)) + "/s";
}

std::optional<WorkReport> Newest(std::vector<WorkReport> reports, const WorkQuery& query) {
  std::optional<WorkReport> found;
  for (WorkReport& report : reports) {
    if (report.kind != query.kind || report.id <= query.afterId) continue;
    if (!query.fileName.empty() && FileNameOf(report.name) != query.fileName) continue;
    if (!found || report.id > found->id) found = std::move(report);
  }
  return found;
}

}  // namespace

int64_t LatestWork(AgentClient& agent) {
  int64_t latest = 0;
  for (const WorkReport& report : AskForWork(agent)) latest = std::max(latest, report.id);
  return latest;
}

std::optional<WorkReport> FindWork(AgentClient& agent, const WorkQuery& query) {
  return Newest(AskForWork(agent), query);
}

std::optional<WorkReport> FindEndedWork(AgentClient& agent, const WorkQuery& query) {
  std::vector<WorkReport> reports = AskForWork(agent);
  std::erase_if(reports, [](const WorkReport& report) { return report.isRunning; });
  return Newest(std::move(reports), query);
}

std::string FileNameOf(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

std::string FormatProgress(const WorkReport& report) {
  std::string line = Cut(EscapeForTerminal(FileNameOf(report.name)), kNameColumns);
  if (report.totalBytes > 0) {
    const double part =
        static_cast<double>(report.doneBytes) / static_cast<double>(report.totalBytes);
    line += "  " + FormatBar(std::min(part, 1.0));
  }
  line += "  " + FormatShortSize(report.doneBytes) + FormatRate(report);
  return Cut(line, kColumns);
}

ProgressLine::ProgressLine(const AgentAddress& agent, WorkQuery query, Output output,
                           ProgressPace pace)
    : query_(std::move(query)), output_(std::move(output)), pace_(pace) {
  thread_ = std::thread([this, agent] { Run(agent); });
}

ProgressLine::~ProgressLine() {
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  ending_.notify_one();
  thread_.join();
}

void ProgressLine::Run(const AgentAddress& address) {
  try {
    AgentClient agent(address);
    for (auto time = pace_.first; Wait(time); time = pace_.further) {
      const std::optional<WorkReport> report = FindWork(agent, query_);
      if (report && report->isRunning) Draw(FormatProgress(*report));
    }
  } catch (const std::exception&) {
    // The caller's own request tells what is wrong.
  }
  if (shownColumns_ == 0) return;
  Draw("");
  output_("\r");
}

bool ProgressLine::Wait(std::chrono::milliseconds time) {
  std::unique_lock lock(mutex_);
  return !ending_.wait_for(lock, time, [this] { return isEnding_; });
}

// Blanks cover what was longer before: not every console knows a sequence for that.
void ProgressLine::Draw(const std::string& line) {
  const size_t columns = ColumnsOf(line);
  const size_t rest = shownColumns_ > columns ? shownColumns_ - columns : 0;
  output_("\r" + line + std::string(rest, ' '));
  shownColumns_ = columns;
}

ActionReply InvokeWithProgress(AgentClient& agent, const char* action,
                               const ZelContainer& parameters, const WorkQuery& query,
                               bool isShown) {
  if (!isShown) return Invoke(agent, action, parameters);
  // Ctrl-C must not leave the line behind.
  const Interruption interruption;
  const ProgressLine line(agent.Address(), query, [](const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
  });
  return Invoke(agent, action, parameters);
}
