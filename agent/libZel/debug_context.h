#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>

#include "libZel/debug.h"

/// Where and how much the agent logs.
struct DebugOptions {
  std::filesystem::path logFile;
  ZelDebugLevel level = ZelDebugLevel::kTrace;
  size_t rotateAtBytes = 10 * 1024 * 1024;
  size_t keptFiles = 5;
  bool alsoToStderr = false;
};

/// One audit line on its way to the audit trail.
struct AuditLine {
  ZelString module;
  ZelString user;
  ZelString address;
  ZelString text;
};

/// The agent's log file (rotated by size) and the way to its audit trail. One exists for the life
/// of the agent. Line ends and other control characters in a text are escaped, so that one call
/// always gives one line.
///
/// Threads: any number may write at once. Writing never throws; a full disk loses lines and is told
/// on standard error once.
class ZelDebugContext {
 public:
  /// Opens the log file, creating its directory. Throws std::runtime_error naming the file.
  explicit ZelDebugContext(const DebugOptions& options);
  ~ZelDebugContext();
  ZelDebugContext(const ZelDebugContext&) = delete;
  ZelDebugContext& operator=(const ZelDebugContext&) = delete;

  bool IsEnabled(ZelDebugLevel level) const { return level <= level_; }
  void WriteLine(ZelDebugLevel level, const ZelString& module, const ZelString& text);

  /// Audit lines go to `sink` and are also logged at level kPrint. Set before other threads write.
  void SetAuditSink(std::function<void(const AuditLine&)> sink);
  void WriteAudit(const AuditLine& line);

  void Flush();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
  const ZelDebugLevel level_;
};

/// The logger "libZel" of the library itself; the core binds it to its context.
ZelDebug& LibraryLog();
