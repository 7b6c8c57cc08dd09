#include "agent/libZelCore/audit_log.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "agent/libZel/native_path.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/json_codec.h"

namespace {

namespace fs = std::filesystem;
namespace json = boost::json;

/// What the first line of a file holds as the hash of the line before.
constexpr std::string_view kGenesis =
    "0000000000000000000000000000000000000000000000000000000000000000";

constexpr size_t kReadBytes = 64 * 1024;

std::string FileText(const fs::path& file) {
  return std::string(FromNativePath(file).Utf8());
}

class Sha256 {
 public:
  Sha256() : context_(EVP_MD_CTX_new()), digest_(EVP_MD_fetch(nullptr, "SHA256", nullptr)) {}
  ~Sha256() {
    EVP_MD_CTX_free(context_);
    EVP_MD_free(digest_);
  }
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  std::string Hex(std::string_view text) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned length = 0;
    const bool isDone = EVP_DigestInit_ex2(context_, digest_, nullptr) == 1 &&
                        EVP_DigestUpdate(context_, text.data(), text.size()) == 1 &&
                        EVP_DigestFinal_ex(context_, bytes.data(), &length) == 1;
    if (!isDone) throw std::runtime_error("SHA-256 is not available");
    std::string hex;
    hex.reserve(2 * length);
    for (unsigned i = 0; i < length; ++i) {
      hex += "0123456789abcdef"[bytes[i] >> 4];
      hex += "0123456789abcdef"[bytes[i] & 15];
    }
    return hex;
  }

 private:
  EVP_MD_CTX* context_;
  EVP_MD* digest_;
};

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

void AppendMember(const char* name, std::string_view value, std::string* line) {
  *line += ",\"";
  *line += name;
  *line += "\":";
  EncodeString(value, line);
}

struct LastLine {
  std::string text;  ///< without its line end; empty for an empty file
  bool hasEnd = true;
};

// Reads backwards, so that starting an agent does not depend on the size of its audit trail.
LastLine ReadLastLine(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary | std::ios::ate);
  if (!stream) throw std::runtime_error("cannot read the audit trail " + FileText(file));
  LastLine last;
  auto position = static_cast<uint64_t>(stream.tellg());
  if (position == 0) return last;

  std::string tail;
  for (bool isFirst = true; position > 0; isFirst = false) {
    const size_t length = static_cast<size_t>(std::min<uint64_t>(position, kReadBytes));
    position -= length;
    std::string block(length, '\0');
    stream.seekg(static_cast<std::streamoff>(position));
    if (!stream.read(block.data(), static_cast<std::streamsize>(length)))
      throw std::runtime_error("cannot read the audit trail " + FileText(file));
    if (isFirst) {
      last.hasEnd = block.back() == '\n';
      if (last.hasEnd) block.pop_back();
    }
    const size_t end = block.rfind('\n');
    tail.insert(0, end == std::string::npos ? block : block.substr(end + 1));
    if (end != std::string::npos) break;
  }
  last.text = std::move(tail);
  return last;
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

// Judges line after line; a line that is no JSON is bad unless the next one says that it is torn.
class Verifier {
 public:
  /// False ends the search.
  bool Add(const std::string& line) {
    ++number_;
    json::error_code error;
    const json::value value = json::parse(line, error);
    const bool isLine = !error && value.is_object() && IsComplete(value.get_object());
    if (!isLine) {
      if (isTorn_) return Fail(number_ - 1, "it is not a line of an audit trail");
      isTorn_ = true;
      previous_ = sha256_.Hex(line);
      return true;
    }

    const json::object& object = value.get_object();
    const json::value* const torn = object.if_contains("torn");
    const bool saysTorn = torn && torn->is_bool() && torn->get_bool();
    if (isTorn_ && !saysTorn) return Fail(number_ - 1, "it is not a line of an audit trail");
    if (Text(object, "previous") != previous_) return Fail(number_, BrokenChain());
    isTorn_ = false;
    previous_ = sha256_.Hex(line);
    return true;
  }

  AuditVerdict Finish(bool lastHasEnd) {
    if (verdict_.badLine == 0 && (isTorn_ || !lastHasEnd))
      Fail(number_, "it is incomplete, and no line after it says so");
    if (verdict_.badLine == 0) {
      verdict_.isWhole = true;
      verdict_.lines = number_;
    }
    return std::move(verdict_);
  }

 private:
  bool Fail(uint64_t line, std::string reason) {
    verdict_.badLine = line;
    verdict_.lines = line - 1;
    verdict_.reason = std::move(reason);
    return false;
  }

  std::string BrokenChain() const {
    if (number_ == 1) return "it is not the first line of an audit trail";
    return "it does not follow from line " + std::to_string(number_ - 1) +
           ": that line was changed, or lines between them were removed or added";
  }

  Sha256 sha256_;
  AuditVerdict verdict_;
  std::string previous_{kGenesis};
  uint64_t number_ = 0;
  bool isTorn_ = false;
};

}  // namespace

struct AuditLog::Implementation {
  explicit Implementation(const fs::path& path) : name(FileText(path)), file(path) {}

  const std::string name;
  core_platform::AppendFile file;
  /// Made with the first line, so that starting does not wait for the cryptographic library.
  std::unique_ptr<Sha256> sha256;
  std::string lastLine;
  bool isEmpty = true;
  bool isTorn = false;  ///< the file ends in a part of a line, which is `lastLine`
  uint64_t lost = 0;
};

AuditLog::AuditLog(const fs::path& file) : implementation_(std::make_unique<Implementation>(file)) {
  LastLine last = ReadLastLine(file);
  implementation_->isTorn = !last.hasEnd;
  implementation_->isEmpty = last.hasEnd && last.text.empty();
  implementation_->lastLine = std::move(last.text);
}

AuditLog::~AuditLog() = default;

std::string AuditLog::MakeLine(const AuditEvent& event) {
  Implementation& log = *implementation_;
  if (!log.sha256) log.sha256 = std::make_unique<Sha256>();

  std::string line = "{\"time\":\"" + Now() + '"';
  AppendMember("module", event.module, &line);
  AppendMember("user", event.user, &line);
  AppendMember("address", event.address, &line);
  AppendMember("text", event.text, &line);
  if (!event.request.empty()) AppendMember("request", event.request, &line);
  if (log.isTorn) line += ",\"torn\":true";
  if (log.lost > 0) line += ",\"lost\":" + std::to_string(log.lost);
  line += ",\"previous\":\"";
  line += log.isEmpty ? std::string(kGenesis) : log.sha256->Hex(log.lastLine);
  line += "\"}";
  return line;
}

bool AuditLog::Write(const AuditEvent& event) {
  std::lock_guard lock(mutex_);
  Implementation& log = *implementation_;
  std::string line = MakeLine(event);

  bool isWhole = true;
  const std::string bytes = (log.isTorn ? "\n" : "") + line + "\n";
  const int error = log.file.Append(bytes, &isWhole);
  if (error == 0) {
    log.lastLine = std::move(line);
    log.isEmpty = log.isTorn = false;
    log.lost = 0;
    return true;
  }

  if (log.lost++ == 0) {
    CoreLog().ErrorWithNL("The audit trail %s cannot be written: %s", log.name.c_str(),
                          std::system_category().message(error).c_str());
  }
  if (!isWhole) {
    // What was written in part stays; the next line has to follow from exactly that.
    try {
      LastLine last = ReadLastLine(fs::path(std::u8string(log.name.begin(), log.name.end())));
      log.isTorn = !last.hasEnd;
      log.isEmpty = last.hasEnd && last.text.empty();
      log.lastLine = std::move(last.text);
    } catch (const std::exception& failure) {
      CoreLog().ErrorWithNL("%s", failure.what());
    }
  }
  return false;
}

AuditVerdict VerifyAuditLog(const fs::path& file) {
  AuditVerdict unreadable;
  std::ifstream stream(file, std::ios::binary);
  if (!stream) {
    unreadable.reason = "cannot read " + FileText(file);
    return unreadable;
  }
  Verifier verifier;
  std::string line;
  bool lastHasEnd = true;
  while (std::getline(stream, line)) {
    lastHasEnd = !stream.eof();
    if (!verifier.Add(line)) break;
  }
  if (stream.bad()) {
    unreadable.reason = "cannot read " + FileText(file) + " to its end";
    return unreadable;
  }
  return verifier.Finish(lastHasEnd);
}
