// Audit trails of any content, in up to four files that bytes 0x1E separate: the check ends with
// numbers that make sense, an agent goes on with what it finds, its lines never mend what is broken
// and never break what is whole, and of a whole trail no byte but those of its last line can be
// changed unseen. The first two bytes of the input choose the byte that is changed.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZelCore/audit_files.h"
#include "agent/libZelCore/audit_log.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kMostFiles = 4;
constexpr char kSeparator = '\x1E';

// The last part is the file that is written to, those before it are its rotated files.
void WriteTrail(const fs::path& trail, std::string_view input) {
  std::vector<std::string_view> parts;
  while (parts.size() + 1 < kMostFiles && input.find(kSeparator) != input.npos) {
    parts.push_back(input.substr(0, input.find(kSeparator)));
    input.remove_prefix(parts.back().size() + 1);
  }
  for (size_t i = 0; i < parts.size(); ++i)
    WriteBytes(audit_files::RotatedName(trail, i + 1), parts[i]);
  WriteBytes(trail, input);
}

void CheckVerdict(const AuditVerdict& verdict) {
  Require(verdict.isWhole == verdict.reason.empty());
  Require(verdict.isWhole <= (verdict.badLine == 0 && verdict.badFile.empty()));
  Require((verdict.badLine == 0) == verdict.badFile.empty());
}

bool WriteEvent(AuditLog& log, std::string_view text) {
  return log.Write({"fuzz", "ann", "127.0.0.1", text, "7"});
}

// What an agent that starts makes of it.
void CheckContinuation(const fs::path& trail, std::string_view text) {
  const AuditVerdict before = VerifyAuditLog(trail);
  CheckVerdict(before);
  Require(before.files <= kMostFiles);
  {
    AuditLog log(trail);
    Require(WriteEvent(log, text) && WriteEvent(log, text));
  }
  const AuditVerdict after = VerifyAuditLog(trail);
  CheckVerdict(after);
  if (before.isWhole) Require(after.isWhole && after.lines == before.lines + 2);
  // A last line that is incomplete is one that the agent itself had begun; the next one says so.
  const bool wasTorn = before.reason.find("incomplete") != std::string::npos;
  if (!before.isWhole && !wasTorn) Require(!after.isWhole);
}

// A trail of the agent's own, over several files, with one byte of it changed.
void CheckChange(const fs::path& trail, std::string_view text, size_t place, uint8_t change) {
  {
    AuditLog log(trail, {.rotateBytes = 600, .keptFiles = 0});
    for (size_t i = 0; i < 6; ++i) Require(WriteEvent(log, text));
  }
  const AuditVerdict whole = VerifyAuditLog(trail);
  Require(whole.isWhole && whole.lines == 6);

  std::vector<fs::path> files;
  for (const auto& [number, file] : audit_files::RotatedFiles(trail)) files.push_back(file);
  const fs::path& file = files.at(place % files.size());
  std::string bytes = ReadBytes(file);
  bytes[place % bytes.size()] = static_cast<char>(bytes[place % bytes.size()] ^ change);
  WriteBytes(file, bytes);
  const AuditVerdict changed = VerifyAuditLog(trail);
  CheckVerdict(changed);
  Require(changed.isWhole == (change == 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch scratch;
  if (size < 3) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data) + 3, size - 3);
  const fs::path trail = scratch / "audit.jsonl";

  scratch.Clear();
  WriteTrail(trail, input);
  CheckContinuation(trail, input.substr(0, 40));

  // Slow: for one input in eight.
  if (data[0] % 8 != 0) return 0;
  scratch.Clear();
  CheckChange(trail, input.substr(0, 200), size_t{data[1]} * 8 + data[0] / 8, data[2]);
  return 0;
}
