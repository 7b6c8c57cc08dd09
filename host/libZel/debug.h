#pragma once

#include <atomic>

#include "libZel/string.h"

/// Where log lines and audit lines go. Owned by the agent; opaque to modules.
class ZelDebugContext;

enum class ZelDebugLevel { kError, kWarning, kPrint, kTrace, kDetail };

/// A logger with a name. Lines written before a context is set are dropped; below the context's
/// level they cost one comparison.
///
/// Formats follow `ZelString::Printf`. The "WithNL" in the names says that each call writes a whole
/// line; the texts hold no line end of their own.
///
/// Threads: any number may write at once. Nothing here throws.
class ZelDebug {
 public:
  /// `name` stands in front of each line; `description` is for people. Both are copied.
  ZelDebug(const ZelString& name, const ZelString& description);

  /// Binds the logger; `context` must outlive the last line written. Null unbinds.
  void SetContext(ZelDebugContext* context);

  /// Lifecycle lines.
  template <typename... Arguments>
  void TraceWithNL(const ZelString& format, const Arguments&... arguments) {
    Log(ZelDebugLevel::kTrace, format, arguments...);
  }
  /// One line for each file operation.
  template <typename... Arguments>
  void DetailWithNL(const ZelString& format, const Arguments&... arguments) {
    Log(ZelDebugLevel::kDetail, format, arguments...);
  }
  /// Progress and notable facts.
  template <typename... Arguments>
  void PrintWithNL(const ZelString& format, const Arguments&... arguments) {
    Log(ZelDebugLevel::kPrint, format, arguments...);
  }
  template <typename... Arguments>
  void WarningWithNL(const ZelString& format, const Arguments&... arguments) {
    Log(ZelDebugLevel::kWarning, format, arguments...);
  }
  template <typename... Arguments>
  void ErrorWithNL(const ZelString& format, const Arguments&... arguments) {
    Log(ZelDebugLevel::kError, format, arguments...);
  }
  /// The security audit trail: who (`user`), from where (`address`), and what happened.
  template <typename... Arguments>
  void AuditWithNL(const ZelString& user, const ZelString& address, const ZelString& format,
                   const Arguments&... arguments) {
    ZelString text;
    text.Printf(format, arguments...);
    WriteAudit(user, address, text);
  }

 private:
  template <typename... Arguments>
  void Log(ZelDebugLevel level, const ZelString& format, const Arguments&... arguments) {
    if (!IsEnabled(level)) return;
    ZelString text;
    text.Printf(format, arguments...);
    Write(level, text);
  }
  bool IsEnabled(ZelDebugLevel level) const;
  void Write(ZelDebugLevel level, const ZelString& text);
  void WriteAudit(const ZelString& user, const ZelString& address, const ZelString& text);

  ZelString name_;
  ZelString description_;
  std::atomic<ZelDebugContext*> context_{nullptr};
};
