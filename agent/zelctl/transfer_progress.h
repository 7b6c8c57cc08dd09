#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/zelctl/agent_client.h"

// How far the agent's long work is, as the action AgentGetProgress tells it.

struct WorkReport {
  int64_t id = 0;    ///< counts up in the order of the beginnings
  std::string kind;  ///< "send", "receive", "pack" or "extract"
  std::string name;  ///< a path on the agent's machine
  uint64_t doneBytes = 0;
  uint64_t totalBytes = 0;  ///< 0: unknown
  uint64_t elapsedMs = 0;
  bool isRunning = false;
  std::string failure;  ///< empty on success and while it runs
};

/// What work is looked for: the newest of a kind that began after `afterId`.
struct WorkQuery {
  std::string kind;
  std::string fileName;  ///< the name of the file, without its directory; empty: any
  int64_t afterId = 0;
};

/// The highest number that the agent has given to work. Throws `Failure`.
int64_t LatestWork(AgentClient& agent);

/// The work looked for, if the agent knows of any. Throws `Failure`.
std::optional<WorkReport> FindWork(AgentClient& agent, const WorkQuery& query);

/// The same among work that has ended: what still runs when an action has ended is not that
/// action's.
std::optional<WorkReport> FindEndedWork(AgentClient& agent, const WorkQuery& query);

/// The last part of a path with either separator.
std::string FileNameOf(const std::string& path);

/// One line of at most 79 columns: file name, bar, bytes, rate.
std::string FormatProgress(const WorkReport& report);

/// When the agent is asked how far work is. It keeps each question in its audit trail.
struct ProgressPace {
  std::chrono::milliseconds first{250};
  std::chrono::milliseconds further{1000};  ///< after the one before
};

/// Shows how far work is while it lives, on one line that it takes away again. It asks over a
/// connection of its own, for the caller's waits for the end of the work. When the agent does not
/// answer, nothing more is shown.
class ProgressLine {
 public:
  using Output = std::function<void(const std::string&)>;

  /// `output` takes what is written to the terminal, on a thread of this object.
  ProgressLine(const AgentAddress& agent, WorkQuery query, Output output, ProgressPace pace = {});
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

 private:
  void Run(const AgentAddress& address);
  /// False when the object is to end.
  bool Wait(std::chrono::milliseconds time);
  void Draw(const std::string& line);

  const WorkQuery query_;
  const Output output_;
  const ProgressPace pace_;
  size_t shownColumns_ = 0;
  std::mutex mutex_;
  std::condition_variable ending_;
  bool isEnding_ = false;
  std::thread thread_;
};

/// Calls the action while a progress line is shown on standard error, if `isShown`. Throws
/// `Failure`.
ActionReply InvokeWithProgress(AgentClient& agent, const char* action,
                               const ZelContainer& parameters, const WorkQuery& query,
                               bool isShown);
