#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

/// One event of the audit trail.
struct AuditEvent {
  std::string_view module;   ///< who reports it
  std::string_view user;     ///< on whose behalf; may be empty
  std::string_view address;  ///< from where; may be empty
  std::string_view text;
  std::string_view request;  ///< id of the HTTP request; may be empty
};

/// The audit trail: an append-only file of JSON lines in which each line holds the SHA-256
/// (FIPS 180-4) of the one before. docs/audit.md describes the format.
///
/// One process writes a file at a time. Threads: any number may write.
class AuditLog {
 public:
  /// Opens or makes the file and continues its chain. A last line without its end, left by a fall
  /// of the agent or the machine, is kept, and the next line says so. Throws std::runtime_error
  /// naming the file.
  explicit AuditLog(const std::filesystem::path& file);
  ~AuditLog();
  AuditLog(const AuditLog&) = delete;
  AuditLog& operator=(const AuditLog&) = delete;

  /// Appends one line. False when that failed (a full disk), which is logged once; the next line
  /// that succeeds holds the number of lost ones. Never throws (but for lack of memory).
  bool Write(const AuditEvent& event);

 private:
  struct Implementation;

  std::string MakeLine(const AuditEvent& event);

  std::mutex mutex_;
  std::unique_ptr<Implementation> implementation_;
};

/// What `VerifyAuditLog` found.
struct AuditVerdict {
  bool isWhole = false;
  uint64_t lines = 0;    ///< how many lines are good
  uint64_t badLine = 0;  ///< the first bad one, counted from 1
  std::string reason;    ///< why it is bad; or why the file cannot be read
};

/// Checks the chain from the first line to the last. What it cannot see: whether whole lines are
/// missing at the end, and whether the last line was changed.
AuditVerdict VerifyAuditLog(const std::filesystem::path& file);
