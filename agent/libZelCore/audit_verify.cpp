#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <fstream>
#include <system_error>
#include <thread>

#include "agent/libZelCore/audit_files.h"
#include "agent/libZelCore/audit_log.h"
#include "agent/libZelCore/core_log.h"

using namespace audit_files;

namespace {

namespace fs = std::filesystem;
namespace json = boost::json;

/// How often, and how long apart, a file is looked for that an agent at work is about to make, or
/// tried that it is renaming.
constexpr int kMostLooks = 200;
constexpr std::chrono::milliseconds kBetweenLooks{5};

/// Opens a file that is there; on Windows that fails while another process renames it.
std::ifstream Open(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  std::error_code error;
  for (int looks = 1; !stream && looks < kMostLooks && fs::exists(file, error); ++looks) {
    std::this_thread::sleep_for(kBetweenLooks);
    stream.open(file, std::ios::binary);
  }
  return stream;
}

std::string_view Text(const json::object& line, const char* name) {
  const json::value* const value = line.if_contains(name);
  return value && value->is_string() ? std::string_view(value->get_string()) : std::string_view();
}

bool IsComplete(const json::object& line) {
  for (const char* const name : {"time", "module", "user", "address", "text", "previous"}) {
    const json::value* const value = line.if_contains(name);
    if (!value || !value->is_string()) return false;
  }
  return true;
}

/// What is wrong with a line, a sentence, and how many lines before it are meant: 0 or 1.
struct Problem {
  std::string reason;
  uint64_t linesBefore = 0;
};

// Judges line after line; a line that is no JSON is bad unless the next one says that it is torn.
class Verifier {
 public:
  /// Checks a rotated file; false ends the search.
  bool AddFile(const fs::path& file, uint64_t number) {
    std::ifstream stream = Open(file);
    if (!AddStream(file, number, stream)) return false;
    if (line_ > 0) return true;
    // An agent begins the next file only behind a line.
    ++line_;
    return Fail(file, {"it is missing, the file is empty", 0});
  }

  /// The same of the file that is written to, which was opened before and may be empty.
  bool AddStream(const fs::path& file, uint64_t number, std::ifstream& stream) {
    fileNumber_ = number;
    line_ = 0;
    linesOfFilesBefore_ = verdict_.lines;
    if (verdict_.files == 0) verdict_.firstFile = number;
    if (!stream) return FailToRead("cannot read " + FileText(file));
    ++verdict_.files;

    std::string line;
    bool lastHasEnd = true;
    while (std::getline(stream, line)) {
      lastHasEnd = !stream.eof();
      ++line_;
      const Problem problem = Add(line);
      if (!problem.reason.empty()) return Fail(file, problem);
      ++verdict_.lines;
    }
    if (stream.bad()) return FailToRead("cannot read " + FileText(file) + " to its end");
    if (isTorn_ || !lastHasEnd)
      return Fail(file, {"it is incomplete, and no line after it says so", 0});
    return true;
  }

  AuditVerdict Finish() {
    verdict_.isWhole = verdict_.reason.empty();
    return std::move(verdict_);
  }

 private:
  Problem Add(const std::string& line) {
    json::error_code error;
    const json::value value = json::parse(line, error);
    const bool isLine = !error && value.is_object() && IsComplete(value.get_object());
    if (!isLine) {
      if (isTorn_) return {"it is not a line of an audit trail", 1};
      isTorn_ = true;
      previous_ = sha256_.Hex(line);
      return {};
    }

    const json::object& object = value.get_object();
    const json::value* const torn = object.if_contains("torn");
    const bool saysTorn = torn && torn->is_bool() && torn->get_bool();
    if (isTorn_ && !saysTorn) return {"it is not a line of an audit trail", 1};
    // What went before a first file that is not the first of all is not here.
    const bool isOpenStart = line_ == 1 && verdict_.files == 1 && fileNumber_ > 1;
    if (!isOpenStart && Text(object, "previous") != previous_) return {BrokenChain(), 0};
    if (line_ == 1 && NumberOfLine(line) != fileNumber_) {
      return {"it does not begin file " + std::to_string(fileNumber_) + " of an audit trail", 0};
    }
    isTorn_ = false;
    previous_ = sha256_.Hex(line);
    return {};
  }

  bool Fail(const fs::path& file, const Problem& problem) {
    verdict_.badFile = FileText(file.filename());
    verdict_.badLine = line_ - problem.linesBefore;
    verdict_.lines = linesOfFilesBefore_ + verdict_.badLine - 1;
    verdict_.reason = problem.reason;
    return false;
  }

  bool FailToRead(std::string reason) {
    verdict_ = {};
    verdict_.reason = std::move(reason);
    return false;
  }

  std::string BrokenChain() const {
    if (line_ == 1 && fileNumber_ == 1) return "it is not the first line of an audit trail";
    if (line_ == 1) return "it does not follow from the last line of the file before";
    return "it does not follow from line " + std::to_string(line_ - 1) +
           ": that line was changed, or lines between them were removed or added";
  }

  Sha256 sha256_;
  AuditVerdict verdict_;
  std::string previous_{kGenesis};
  uint64_t fileNumber_ = 1;
  uint64_t line_ = 0;
  uint64_t linesOfFilesBefore_ = 0;
  bool isTorn_ = false;
};

/// The number that a file's first line tells; of one that is empty or begins with something else
/// `otherwise`.
uint64_t NumberOfFile(const fs::path& file, uint64_t otherwise) {
  std::ifstream stream = Open(file);
  std::string line;
  if (!std::getline(stream, line)) return otherwise;
  const uint64_t number = NumberOfLine(line);
  return number > 0 ? number : otherwise;
}

}  // namespace

AuditVerdict VerifyAuditLog(const fs::path& file) {
  Verifier verifier;
  if (const uint64_t number = NumberOfName(file); number > 0) {
    verifier.AddFile(file, number);
    return verifier.Finish();
  }
  // Asked first: an agent at work may rename the file at any time.
  const uint64_t told = NumberOfFile(file, 1);
  const auto rotated = RotatedFiles(file);
  uint64_t next = rotated.empty() ? told : rotated.begin()->first;
  for (const auto& [number, path] : rotated) {
    // A gap is found where the next file is looked for.
    for (; next <= number; ++next) {
      if (!verifier.AddFile(RotatedName(file, next), next)) return verifier.Finish();
    }
  }
  for (int looks = 1;; ++looks) {
    // What is open stays the same file. It is the next one unless that was renamed meanwhile.
    std::ifstream stream = Open(file);
    const fs::path renamed = RotatedName(file, next);
    std::error_code error;
    if (fs::exists(renamed, error)) {
      if (!verifier.AddFile(renamed, next++)) return verifier.Finish();
    } else if (!stream && next > 1 && looks < kMostLooks) {
      // An agent at work has renamed the file and not yet made the next one.
      std::this_thread::sleep_for(kBetweenLooks);
    } else {
      verifier.AddStream(file, next, stream);
      return verifier.Finish();
    }
  }
}
