#include "agent/libZelCore/audit_log.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "agent/libZel/file_text.h"
#include "agent/libZel/system_error_text.h"
#include "agent/libZelCore/audit_files.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/json_codec.h"

using namespace audit_files;

namespace {

namespace fs = std::filesystem;

// RFC 3339, UTC, milliseconds.
std::string Now() {
  using namespace std::chrono;
  const auto now = floor<milliseconds>(system_clock::now());
  const auto day = floor<days>(now);
  const year_month_day date(day);
  const hh_mm_ss time(now - day);
  char text[40];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", int(date.year()),
                unsigned(date.month()), unsigned(date.day()), int(time.hours().count()),
                int(time.minutes().count()), int(time.seconds().count()),
                int(time.subseconds().count()));
  return text;
}

/// Callers choose their names: what is not UTF-8 is written out, for it would be no line of JSON.
void AppendMember(const char* name, std::string_view value, std::string* line) {
  *line += ",\"";
  *line += name;
  *line += "\":";
  EncodeString(ZelString(value).Utf8(), line);
}

/// The number that the file's first line tells; 0 when it tells none.
uint64_t NumberOfFile(const fs::path& file) {
  return NumberOfLine(FirstLineOfFile(file).value_or(std::string()));
}

/// Not so when the file tells another number than its name; one whose first line is torn tells
/// none.
bool IsOfTrail(const std::pair<const uint64_t, fs::path>& rotated) {
  const uint64_t told = NumberOfFile(rotated.second);
  return told == 0 || told == rotated.first;
}

}  // namespace

struct AuditLog::Implementation {
  Implementation(const fs::path& path, const AuditRotation& rotationOfLog)
      : name(FileText(path)),
        path(path),
        rotation(rotationOfLog),
        file(std::make_unique<core_platform::AppendFile>(path)),
        rotateAt(rotationOfLog.rotateBytes) {}

  void Continue();
  void FindNumber();
  std::string MakeLine(const AuditEvent& event);
  bool Rotate();
  void DeleteOldFiles();
  int Append(std::string_view bytes, bool* isWhole);

  const std::string name;
  const fs::path path;
  const AuditRotation rotation;
  /// Null while it could not be opened again.
  std::unique_ptr<core_platform::AppendFile> file;
  uint64_t sizeBytes = 0;
  uint64_t rotateAt;
  uint64_t number = 1;  ///< of the file, 1 being the first one of the trail
  /// Made with the first line, so that starting does not wait for the cryptographic library.
  std::unique_ptr<Sha256> sha256;
  std::string lastLine;  ///< of the file, or of the one before while it is empty
  bool isEmpty = true;
  bool isTorn = false;  ///< the file ends in a part of a line, which is `lastLine`
  uint64_t lost = 0;
};

/// Finds out what the next line follows from.
void AuditLog::Implementation::Continue() {
  LastLine last = ReadLastLine(path);
  isTorn = !last.hasEnd;
  isEmpty = last.hasEnd && last.text.empty();
  sizeBytes = fs::file_size(path);
  // An empty file goes on from the one before.
  if (!isEmpty) lastLine = std::move(last.text);
}

/// What the file tells itself counts: others beside it may be copies with numbers of their own,
/// such as a date.
void AuditLog::Implementation::FindNumber() {
  const uint64_t told = isEmpty ? 0 : NumberOfFile(path);
  if (told > 0) {
    number = told;
    return;
  }
  const auto rotated = RotatedFiles(path);
  const auto newest = std::find_if(rotated.rbegin(), rotated.rend(), IsOfTrail);
  if (newest == rotated.rend()) return;
  number = newest->first + 1;
  if (isEmpty) lastLine = ReadLastLine(newest->second).text;
}

std::string AuditLog::Implementation::MakeLine(const AuditEvent& event) {
  if (!sha256) sha256 = std::make_unique<Sha256>();

  std::string line = "{\"time\":\"" + Now() + '"';
  AppendMember("module", event.module, &line);
  AppendMember("user", event.user, &line);
  AppendMember("address", event.address, &line);
  AppendMember("text", event.text, &line);
  if (!event.request.empty()) AppendMember("request", event.request, &line);
  if (isTorn) line += ",\"torn\":true";
  if (lost > 0) line += ",\"lost\":" + std::to_string(lost);
  if (isEmpty && number > 1)
    line += ",\"" + std::string(kFileMember) + "\":" + std::to_string(number);
  line += ",\"previous\":\"";
  line += isEmpty && number == 1 ? std::string(kGenesis) : sha256->Hex(lastLine);
  line += "\"}";
  return line;
}

/// Begins the next file. False when the file goes on, which is tried again when it has grown by as
/// much once more.
bool AuditLog::Implementation::Rotate() {
  const fs::path target = RotatedName(path, number);
  std::error_code error;
  file.reset();  // Windows renames no file that is open
  if (fs::exists(target, error)) error = std::make_error_code(std::errc::file_exists);
  if (!error) fs::rename(path, target, error);
  if (error) {
    CoreLog().ErrorWithNL("The audit trail %s cannot be renamed to %s and grows on: %s",
                          name.c_str(), FileText(target).c_str(), error.message().c_str());
    rotateAt = sizeBytes + rotation.rotateBytes;
    return false;
  }
  ++number;
  sizeBytes = 0;
  rotateAt = rotation.rotateBytes;
  isEmpty = true;
  DeleteOldFiles();
  return true;
}

void AuditLog::Implementation::DeleteOldFiles() {
  if (rotation.keptFiles == 0 || rotation.keptFiles >= number) return;
  for (const auto& [oldNumber, oldFile] : RotatedFiles(path)) {
    if (oldNumber >= number - rotation.keptFiles) return;
    std::error_code error;
    fs::remove(oldFile, error);
    if (error) {
      CoreLog().WarningWithNL("The old audit trail %s cannot be deleted: %s",
                              FileText(oldFile).c_str(), error.message().c_str());
    }
  }
}

int AuditLog::Implementation::Append(std::string_view bytes, bool* isWhole) {
  *isWhole = true;
  if (!file) {
    try {
      file = std::make_unique<core_platform::AppendFile>(path);
    } catch (const std::runtime_error& failure) {
      if (lost == 0) CoreLog().ErrorWithNL("%s", failure.what());
      return EIO;
    }
  }
  return file->Append(bytes, isWhole);
}

AuditLog::AuditLog(const fs::path& file, const AuditRotation& rotation)
    : implementation_(std::make_unique<Implementation>(file, rotation)) {
  implementation_->Continue();
  implementation_->FindNumber();
}

AuditLog::~AuditLog() = default;

bool AuditLog::Write(const AuditEvent& event) {
  std::lock_guard lock(mutex_);
  Implementation& log = *implementation_;
  std::string line = log.MakeLine(event);
  const bool isDue = !log.isEmpty && !log.isTorn && log.sizeBytes + line.size() >= log.rotateAt;
  if (isDue && log.Rotate()) line = log.MakeLine(event);

  bool isWhole = true;
  const std::string bytes = (log.isTorn ? "\n" : "") + line + "\n";
  const int error = log.Append(bytes, &isWhole);
  if (error == 0) {
    log.sizeBytes += bytes.size();
    log.lastLine = std::move(line);
    log.isEmpty = log.isTorn = false;
    log.lost = 0;
    return true;
  }

  if (log.lost++ == 0) {
    CoreLog().ErrorWithNL("The audit trail %s cannot be written: %s", log.name.c_str(),
                          SystemErrorText(error).c_str());
  }
  if (!isWhole) {
    // What was written in part stays; the next line has to follow from exactly that.
    try {
      log.Continue();
    } catch (const std::exception& failure) {
      CoreLog().ErrorWithNL("%s", failure.what());
    }
  }
  return false;
}
