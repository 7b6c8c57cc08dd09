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

/// When a trail goes on in a new file, and how many of the old ones stay.
struct AuditRotation {
  uint64_t rotateBytes = uint64_t{64} << 20;
  uint32_t keptFiles = 0;  ///< 0: all
};

/// The audit trail: append-only files of JSON lines in which each line holds the SHA-256
/// (FIPS 180-4) of the one before. docs/audit.md describes the format.
///
/// One process writes a file at a time. Threads: any number may write.
class AuditLog {
 public:
  /// Opens or makes the file and continues its chain. A last line without its end, left by a fall
  /// of the agent or the machine, is kept, and the next line says so. Throws std::runtime_error
  /// naming the file.
  explicit AuditLog(const std::filesystem::path& file, const AuditRotation& rotation = {});
  ~AuditLog();
  AuditLog(const AuditLog&) = delete;
  AuditLog& operator=(const AuditLog&) = delete;

  /// Appends one line. False when that failed (a full disk), which is logged once; the next line
  /// that succeeds holds the number of lost ones. Never throws (but for lack of memory).
  bool Write(const AuditEvent& event);

 private:
  struct Implementation;

  std::mutex mutex_;
  std::unique_ptr<Implementation> implementation_;
};

/// What `VerifyAuditLog` found.
struct AuditVerdict {
  bool isWhole = false;
  uint64_t lines = 0;      ///< how many lines are good, in all files
  uint64_t files = 0;      ///< how many were looked at
  uint64_t firstFile = 0;  ///< the number of the first one; above 1 those before it are not here
  std::string badFile;     ///< the name of the file with the first bad line
  uint64_t badLine = 0;    ///< which it is there, counted from 1
  std::string reason;      ///< why it is bad; or why the file cannot be read
};

/// Checks the chain from the first line to the last, across the rotated files beside the file; of a
/// rotated file that one alone. What it cannot see: whether whole lines are missing at the end, or
/// files at the beginning, and whether the last line was changed.
AuditVerdict VerifyAuditLog(const std::filesystem::path& file);
