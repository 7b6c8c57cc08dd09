#include "agent/libZel/http_file.h"

#include <curl/curl.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace http_file {
namespace {

constexpr long kConnectTimeoutSeconds = 10;
constexpr long kStallTimeoutSeconds = 30;
// A server that only trickles would hold an action thread, and a stopping agent, for ever.
constexpr long kStallBytesPerSecond = 128;
constexpr long kMaxRedirects = 5;
constexpr long kNotFound = 404;
constexpr long kGone = 410;

// The library is prepared at the first use: an agent that never transfers does not pay for it.
void PrepareOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
      throw std::runtime_error("the HTTP client could not be prepared");
    }
  });
}

struct FreeHandle {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct FreeList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

size_t Discard(char*, size_t size, size_t count, void*) {
  return size * count;
}

// One request. Callbacks must not throw: they run inside a C library.
class Request {
 public:
  explicit Request(const ZelString& url) {
    PrepareOnce();
    handle_.reset(curl_easy_init());
    if (!handle_) throw std::bad_alloc();
    Set(CURLOPT_ERRORBUFFER, error_);
    Set(CURLOPT_URL, url.GetString(kEncodingUtf8));
    Set(CURLOPT_PROTOCOLS_STR, "http,https");
    Set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    Set(CURLOPT_FOLLOWLOCATION, 1L);
    Set(CURLOPT_MAXREDIRS, kMaxRedirects);
    Set(CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    Set(CURLOPT_LOW_SPEED_LIMIT, kStallBytesPerSecond);
    Set(CURLOPT_LOW_SPEED_TIME, kStallTimeoutSeconds);
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_SSL_VERIFYPEER, 1L);
    Set(CURLOPT_SSL_VERIFYHOST, 2L);
    // Where the system keeps the authorities it trusts itself, those count.
    Set(CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NATIVE_CA));
    Set(CURLOPT_USERAGENT, "zelagent");
    Set(CURLOPT_WRITEFUNCTION, Discard);
  }

  template <typename Value>
  void Set(CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(handle_.get(), option, value);
    if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
  }

  void AddHeader(const char* line) {
    curl_slist* longer = curl_slist_append(headers_.get(), line);
    if (longer == nullptr) throw std::bad_alloc();
    headers_.release();
    headers_.reset(longer);
    Set(CURLOPT_HTTPHEADER, longer);
  }

  /// Success is an answer of the 200s that came whole.
  Outcome Perform() {
    const CURLcode code = curl_easy_perform(handle_.get());
    if (code != CURLE_OK) {
      return FailedBecause(error_[0] != '\0' ? error_ : curl_easy_strerror(code));
    }
    const long status = Status();
    if (status >= 200 && status <= 299) return {};
    ZelString reason;
    return FailedBecause(reason.Printf("the server answered with status %d", status));
  }

  long Status() const {
    long status = 0;
    curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
    return status;
  }
  curl_off_t Number(CURLINFO info) const {
    curl_off_t value = -1;
    curl_easy_getinfo(handle_.get(), info, &value);
    return value;
  }

 private:
  char error_[CURL_ERROR_SIZE] = {};
  std::unique_ptr<curl_slist, FreeList> headers_;
  std::unique_ptr<CURL, FreeHandle> handle_;
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

Outcome Fetch(const ZelString& url, file_system::PendingFile* file) {
  Request request(url);
  Sink sink{file};
  // The body of an error answer is not the file.
  request.Set(CURLOPT_FAILONERROR, 1L);
  request.Set(CURLOPT_FILETIME, 1L);
  request.Set(CURLOPT_WRITEFUNCTION, WriteToFile);
  request.Set(CURLOPT_WRITEDATA, &sink);
  Outcome outcome = request.Perform();
  if (sink.error != 0) return OutcomeOf(sink.error);
  if (!outcome) return outcome;
  const curl_off_t modified = request.Number(CURLINFO_FILETIME_T);
  return modified < 0 ? Outcome{} : OutcomeOf(file->SetModified(modified));
}

size_t ReadFromFile(char* bytes, size_t size, size_t count, void* context) {
  auto* file = static_cast<std::ifstream*>(context);
  file->read(bytes, static_cast<std::streamsize>(size * count));
  return file->bad() ? CURL_READFUNC_ABORT : static_cast<size_t>(file->gcount());
}

// A redirected upload starts again.
int SeekInFile(void* context, curl_off_t offset, int origin) {
  auto* file = static_cast<std::ifstream*>(context);
  if (origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
  file->clear();
  file->seekg(offset);
  return file->good() ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
}

Outcome Send(const std::filesystem::path& source, const ZelString& url, bool replace) {
  const file_system::Status status = file_system::Look(source);
  std::ifstream file(source, std::ios::binary);
  if (!file) return FailedBecause("the file cannot be opened");

  Request request(url);
  request.Set(CURLOPT_UPLOAD, 1L);
  request.Set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(status.sizeBytes));
  request.Set(CURLOPT_READFUNCTION, ReadFromFile);
  request.Set(CURLOPT_READDATA, &file);
  request.Set(CURLOPT_SEEKFUNCTION, SeekInFile);
  request.Set(CURLOPT_SEEKDATA, &file);
  if (!replace) request.AddHeader("If-None-Match: *");
  const Outcome outcome = request.Perform();
  if (!outcome) return outcome;
  const bool isWhole =
      request.Number(CURLINFO_SIZE_UPLOAD_T) >= static_cast<curl_off_t>(status.sizeBytes);
  return isWhole ? Outcome{} : FailedBecause("the file became shorter while it was sent");
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

Properties GetProperties(const ZelString& url) {
  Request request(url);
  request.Set(CURLOPT_NOBODY, 1L);
  const Outcome outcome = request.Perform();
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

Outcome Download(const ZelString& url, const std::filesystem::path& destination, bool replace) {
  file_system::PendingFile file;
  const int error = file.Create(destination);
  if (error != 0) return OutcomeOf(error);
  const Outcome outcome = Fetch(url, &file);
  return outcome ? OutcomeOf(file.Commit(replace)) : outcome;
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
  const Outcome outcome = Fetch(source, &file);
  return outcome ? Send(file.Path(), destination, replace) : outcome;
}

Outcome Delete(const ZelString& url) {
  Request request(url);
  request.Set(CURLOPT_CUSTOMREQUEST, "DELETE");
  return request.Perform();
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
