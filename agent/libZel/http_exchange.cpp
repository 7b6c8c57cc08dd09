#include "agent/libZel/http_exchange.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <stdexcept>

#include "agent/libZel/ascii.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/request_proof.h"
#include "agent/libZel/security_context.h"

namespace http_exchange {
namespace {

constexpr long kKeepAliveIdleSeconds = 10;
constexpr long kKeepAliveIntervalSeconds = 5;

std::atomic<bool> arePlainCredentialsAllowed{false};

void PrepareOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
      throw std::runtime_error("the HTTP client could not be prepared");
    }
  });
}

size_t Discard(char*, size_t size, size_t count, void*) {
  return size * count;
}

}  // namespace

void Request::FreeHandle::operator()(CURL* handle) const {
  curl_easy_cleanup(handle);
}
void Request::FreeList::operator()(curl_slist* list) const {
  curl_slist_free_all(list);
}

Request::Request(const std::string& url) {
  PrepareOnce();
  handle_.reset(curl_easy_init());
  if (!handle_) throw std::bad_alloc();
  SetContext(CURLOPT_ERRORBUFFER, error_);
  Set(CURLOPT_URL, url.c_str());
  Set(CURLOPT_PROTOCOLS_STR, "http,https");
  Set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  Set(CURLOPT_FOLLOWLOCATION, 0L);
  Set(CURLOPT_NOSIGNAL, 1L);
  Set(CURLOPT_SSL_VERIFYPEER, 1L);
  Set(CURLOPT_SSL_VERIFYHOST, 2L);
  Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  Set(CURLOPT_USERAGENT, "zelagent");
  Set(CURLOPT_WRITEFUNCTION, Discard);
}

Request::~Request() = default;

void Request::Check(CURLcode code) const {
  if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
}

void Request::Set(CURLoption option, long value) {
  Check(curl_easy_setopt(handle_.get(), option, value));
}
void Request::SetSize(CURLoption option, uint64_t value) {
  Check(curl_easy_setopt(handle_.get(), option, static_cast<curl_off_t>(value)));
}
void Request::Set(CURLoption option, const char* text) {
  Check(curl_easy_setopt(handle_.get(), option, text));
}
void Request::Set(CURLoption option, Transfer callback) {
  Check(curl_easy_setopt(handle_.get(), option, callback));
}
void Request::Set(CURLoption option, Seek callback) {
  Check(curl_easy_setopt(handle_.get(), option, callback));
}
void Request::Set(CURLoption option, Progress callback) {
  Check(curl_easy_setopt(handle_.get(), option, callback));
}
void Request::SetContext(CURLoption option, void* context) {
  Check(curl_easy_setopt(handle_.get(), option, context));
}

void Request::AddHeader(const std::string& line) {
  curl_slist* longer = curl_slist_append(headers_.get(), line.c_str());
  if (longer == nullptr) throw std::bad_alloc();
  static_cast<void>(headers_.release());
  headers_.reset(longer);
  SetContext(CURLOPT_HTTPHEADER, longer);
}

void Request::Collect(std::string* body, size_t maxBytes) {
  body_ = body;
  maxBytes_ = maxBytes;
  Set(CURLOPT_WRITEFUNCTION, Keep);
  SetContext(CURLOPT_WRITEDATA, this);
}

size_t Request::Keep(char* bytes, size_t size, size_t count, void* context) {
  auto& request = *static_cast<Request*>(context);
  const size_t length = size * count;
  const size_t kept = std::min(length, request.maxBytes_ - request.body_->size());
  try {
    request.body_->append(bytes, kept);
  } catch (const std::bad_alloc&) {
    return CURL_WRITEFUNC_ERROR;
  }
  if (kept < length) request.isTooLong_ = true;
  return kept == length ? length : CURL_WRITEFUNC_ERROR;
}

CURLcode Request::Perform() {
  code_ = curl_easy_perform(handle_.get());
  return code_;
}

std::string Request::Reason() const {
  return error_[0] != '\0' ? error_ : curl_easy_strerror(code_);
}

long Request::Status() const {
  long status = 0;
  curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
  return status;
}

curl_off_t Request::Number(CURLINFO info) const {
  curl_off_t value = -1;
  curl_easy_getinfo(handle_.get(), info, &value);
  return value;
}

std::string Request::Text(CURLINFO info) const {
  const char* text = nullptr;
  curl_easy_getinfo(handle_.get(), info, &text);
  return text != nullptr ? text : "";
}

std::string AgentAddress::Authority() const {
  return port.empty() ? host : host + ":" + port;
}

std::string AgentAddress::Base() const {
  return (isTls ? "https://" : "http://") + Authority();
}

bool IsLoopback(std::string_view host) {
  if (host == "localhost" || host == "[::1]") return true;
  if (!host.starts_with("127.")) return false;
  const bool isNumeric = host.find_first_not_of("0123456789.") == std::string_view::npos;
  return isNumeric && std::count(host.begin(), host.end(), '.') == 3;
}

void AllowPlainCredentials(bool isAllowed) {
  arePlainCredentialsAllowed = isAllowed;
}
bool ArePlainCredentialsAllowed() {
  return arePlainCredentialsAllowed;
}

std::string EncodePath(std::string_view path) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(path.size());
  for (const char c : path) {
    if (IsUnreserved(c) || c == '/') {
      encoded += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    encoded += {'%', kDigits[byte >> 4], kDigits[byte & 0xF]};
  }
  return encoded;
}

void AddressAgent(Request* request, const AgentAddress& address, const AgentLogin& login,
                  std::string_view method, std::string_view target, std::string_view bodySha256) {
  request->Set(CURLOPT_PATH_AS_IS, 1L);
  request->Set(CURLOPT_PROXY, "");  // agents talk to each other directly
  request->Set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  // Where the peer's machine is gone, nothing else would tell while the peer is at work.
  request->Set(CURLOPT_TCP_KEEPALIVE, 1L);
  request->Set(CURLOPT_TCP_KEEPIDLE, kKeepAliveIdleSeconds);
  request->Set(CURLOPT_TCP_KEEPINTVL, kKeepAliveIntervalSeconds);

  // Proofs are over this field: the client of the connection must not form it in its own way.
  const std::string authority = address.Authority();
  request->AddHeader("Host: " + authority);
  if (login.pac != nullptr) {
    request->AddHeader("Authorization: " +
                       MakeProof(*login.pac, {method, target, authority}, bodySha256));
    return;
  }
  request->Set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
  request->Set(CURLOPT_USERNAME, (kAgentLoginPrefix + login.agentName).c_str());
  request->Set(CURLOPT_PASSWORD, login.password.c_str());
}

void UseFleetTls(Request* request, const SslContext& context) {
  const auto name = [](const std::filesystem::path& file) {
    return std::string(FromNativePath(file).Utf8());
  };
  if (context.authorityFile.empty()) throw std::runtime_error("no certificate authority is set");
  request->Set(CURLOPT_CAINFO, name(context.authorityFile).c_str());
  request->Set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  if (context.certificateFile.empty()) return;
  request->Set(CURLOPT_SSLCERT, name(context.certificateFile).c_str());
  request->Set(CURLOPT_SSLKEY, name(context.privateKeyFile).c_str());
}

}  // namespace http_exchange
