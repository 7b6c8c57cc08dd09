#include "agent/libZel/http_file.h"

#include <algorithm>
#include <string>

#include "agent/libZel/file_body.h"
#include "agent/libZel/http_exchange.h"

namespace http_file {
namespace {

constexpr long kConnectTimeoutSeconds = 10;
constexpr long kStallTimeoutSeconds = 30;
constexpr long kMaxRedirects = 5;
constexpr long kNotFound = 404;
constexpr long kGone = 410;

// A request on behalf of a user, whose servers may be anywhere.
class Request : public http_exchange::Request {
 public:
  explicit Request(const ZelString& url) : http_exchange::Request(url.GetString(kEncodingUtf8)) {
    Set(CURLOPT_FOLLOWLOCATION, 1L);
    Set(CURLOPT_MAXREDIRS, kMaxRedirects);
    Set(CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    Set(CURLOPT_LOW_SPEED_LIMIT, http_exchange::kStallBytesPerSecond);
    Set(CURLOPT_LOW_SPEED_TIME, kStallTimeoutSeconds);
    // Where the system keeps the authorities it trusts itself, those count.
    Set(CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NATIVE_CA));
  }

  /// Success is an answer of the 200s that came whole.
  Outcome Ask() {
    if (Perform() != CURLE_OK) return FailedBecause(Reason());
    const long status = Status();
    if (status >= 200 && status <= 299) return {};
    ZelString reason;
    return FailedBecause(reason.Printf("the server answered with status %d", status));
  }
};

struct Sink {
  file_system::PendingFile* file;
  int error = 0;
};

size_t WriteToFile(char* bytes, size_t size, size_t count, void* context) {
  auto* sink = static_cast<Sink*>(context);
  sink->error = sink->file->Write(bytes, size * count);
  return sink->error == 0 ? size * count : 0;
}

Outcome Send(const std::filesystem::path& source, const ZelString& url, bool replace) {
  FileBody file;
  const Outcome opened = file.Open(source);
  if (!opened) return opened;

  Request request(url);
  file.SendWith(&request, nullptr);
  if (!replace) request.AddHeader("If-None-Match: *");
  const Outcome outcome = request.Ask();
  if (!file.Failure()) return file.Failure();
  if (!outcome) return outcome;
  const bool isWhole =
      request.Number(CURLINFO_SIZE_UPLOAD_T) >= static_cast<curl_off_t>(file.SizeBytes());
  return isWhole ? Outcome{} : FailedBecause("the server did not take the whole file");
}

Outcome RefuseExisting(const ZelString& url) {
  const Properties properties = GetProperties(url);
  switch (properties.presence) {
    case Properties::Presence::kMissing:
      return {};
    case Properties::Presence::kExists:
      return OutcomeOf(file_system::kErrorExists);
    case Properties::Presence::kUnknown:
      break;
  }
  return FailedBecause(ZelString("whether the destination exists is unknown: ") +
                       properties.reason);
}

}  // namespace

Properties GetProperties(const ZelString& url, std::chrono::milliseconds longest) {
  Request request(url);
  request.Set(CURLOPT_NOBODY, 1L);
  request.Set(CURLOPT_TIMEOUT_MS, static_cast<long>(longest.count()));
  const Outcome outcome = request.Ask();
  Properties properties;
  properties.reason = outcome.reason;
  const long status = request.Status();
  if (outcome) {
    properties.presence = Properties::Presence::kExists;
    const curl_off_t length = request.Number(CURLINFO_CONTENT_LENGTH_DOWNLOAD_T);
    properties.sizeBytes = length < 0 ? 0 : static_cast<uint64_t>(length);
  } else if (status == kNotFound || status == kGone) {
    properties.presence = Properties::Presence::kMissing;
  }
  return properties;
}

Outcome Download(const ZelString& url, file_system::PendingFile* file) {
  Request request(url);
  Sink sink{file};
  // The body of an error answer is not the file.
  request.Set(CURLOPT_FAILONERROR, 1L);
  request.Set(CURLOPT_FILETIME, 1L);
  request.Set(CURLOPT_WRITEFUNCTION, WriteToFile);
  request.SetContext(CURLOPT_WRITEDATA, &sink);
  Outcome outcome = request.Ask();
  if (sink.error != 0) return OutcomeOf(sink.error);
  if (!outcome) return outcome;
  const curl_off_t modified = request.Number(CURLINFO_FILETIME_T);
  return modified < 0 ? Outcome{} : OutcomeOf(file->SetModified(modified));
}

Outcome Upload(const std::filesystem::path& source, const ZelString& url, bool replace) {
  if (!replace) {
    const Outcome outcome = RefuseExisting(url);
    if (!outcome) return outcome;
  }
  return Send(source, url, replace);
}

Outcome Copy(const ZelString& source, const ZelString& destination, bool replace) {
  if (!replace) {
    const Outcome outcome = RefuseExisting(destination);
    if (!outcome) return outcome;
  }
  file_system::PendingFile file;
  const int error = file.Create(file_system::TemporaryDirectory() / "download");
  if (error != 0) return OutcomeOf(error);
  const Outcome outcome = Download(source, &file);
  return outcome ? Send(file.Path(), destination, replace) : outcome;
}

Outcome Delete(const ZelString& url) {
  Request request(url);
  request.Set(CURLOPT_CUSTOMREQUEST, "DELETE");
  return request.Ask();
}

ZelString WithoutCredentials(const ZelString& url) {
  const std::string_view text = url.Utf8();
  const size_t scheme = text.find("://");
  if (scheme == text.npos) return url;
  const size_t start = scheme + 3;
  const size_t end = std::min(text.find_first_of("/?#", start), text.size());
  const size_t at = text.substr(start, end - start).rfind('@');
  const size_t host = at == text.npos ? start : start + at + 1;
  const size_t query = std::min(text.find_first_of("?#", end), text.size());
  std::string fit(text.substr(0, start));
  fit += text.substr(host, query - host);
  if (query < text.size()) fit += "?...";
  return ZelString(fit);
}

}  // namespace http_file
