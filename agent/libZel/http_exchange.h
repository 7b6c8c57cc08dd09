#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "agent/libZel/security_context.h"

// What everything that sends HTTP requests shares. libcurl is prepared at the first request: an
// agent that never sends one does not pay for it.
namespace http_exchange {

/// Slower than this counts as standing still: a server that only trickles would hold an action
/// thread, and a stopping agent, for ever.
constexpr long kStallBytesPerSecond = 128;

/// One request over http or https, and its answer. Redirects are not followed, servers'
/// certificates are verified, an answer's body is dropped; options change that.
///
/// One thread at a time. Everything throws std::runtime_error when libcurl is missing or refuses
/// an option. Callbacks must not throw: they run inside a C library.
class Request {
 public:
  using Transfer = size_t (*)(char* bytes, size_t size, size_t count, void* context);
  using Seek = int (*)(void* context, curl_off_t offset, int origin);
  using Progress = int (*)(void* context, curl_off_t expected, curl_off_t received,
                           curl_off_t toSend, curl_off_t sent);

  explicit Request(const std::string& url);
  ~Request();
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  void Set(CURLoption option, long value);
  /// For options that take a size of more than 32 bits.
  void SetSize(CURLoption option, uint64_t value);
  /// The text is copied, but for CURLOPT_POSTFIELDS.
  void Set(CURLoption option, const char* text);
  void Set(CURLoption option, Transfer callback);
  void Set(CURLoption option, Seek callback);
  void Set(CURLoption option, Progress callback);
  void SetContext(CURLoption option, void* context);
  /// "Name: value".
  void AddHeader(const std::string& line);
  /// The answer's body goes to `*body`. More than `maxBytes` end the transfer with
  /// CURLE_WRITE_ERROR, and the first `maxBytes` are kept; `IsTooLong` then.
  void Collect(std::string* body, size_t maxBytes);

  CURLcode Perform();
  /// Why `Perform` failed, a sentence.
  std::string Reason() const;
  bool IsTooLong() const { return isTooLong_; }
  /// Of the answer; 0 for none.
  long Status() const;
  curl_off_t Number(CURLINFO info) const;
  /// Empty when there is none.
  std::string Text(CURLINFO info) const;

 private:
  struct FreeHandle {
    void operator()(CURL* handle) const;
  };
  struct FreeList {
    void operator()(curl_slist* list) const;
  };
  static size_t Keep(char* bytes, size_t size, size_t count, void* context);
  void Check(CURLcode code) const;

  char error_[CURL_ERROR_SIZE] = {};
  CURLcode code_ = CURLE_OK;
  std::string* body_ = nullptr;
  size_t maxBytes_ = 0;
  bool isTooLong_ = false;
  std::unique_ptr<curl_slist, FreeList> headers_;
  std::unique_ptr<CURL, FreeHandle> handle_;
};

/// Where another agent listens.
struct AgentAddress {
  bool isTls = false;
  std::string host;  ///< an IPv6 address stands in brackets
  std::string port;  ///< empty for that of the scheme

  /// "host:port", as the field Host has it too.
  std::string Authority() const;
  /// "https://host:port".
  std::string Base() const;
};

/// What shows another agent who sends a request.
struct AgentLogin {
  std::string agentName;
  std::string password;
  /// Where set, a proof goes out instead of the password.
  const PacContext* pac = nullptr;
};

/// This machine, by name or by address.
bool IsLoopback(std::string_view host);

/// Whether passwords may go to other machines without TLS, in the whole process; at first not.
void AllowPlainCredentials(bool isAllowed);
bool ArePlainCredentialsAllowed();

/// A path fit for a request: everything but letters, digits, "-", ".", "_", "~" and "/" is
/// percent-encoded.
std::string EncodePath(std::string_view path);

/// Prepares a request to an agent: no proxy, no credentials but these, which go out with the
/// request, and a dead peer is noticed within a minute. `method` and `target` are those of the
/// request, `bodySha256` the digest of its body in hexadecimal digits, asked for by proofs alone.
void AddressAgent(Request* request, const AgentAddress& address, const AgentLogin& login,
                  std::string_view method, std::string_view target, std::string_view bodySha256);

/// Verifies the peer against the context's authority alone, and shows the context's certificate to
/// one that asks.
void UseFleetTls(Request* request, const SslContext& context);

}  // namespace http_exchange
