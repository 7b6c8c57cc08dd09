#include "libZel/curl_get.h"

#include <fstream>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/libZel/boundary.h"
#include "agent/libZel/curl_url.h"
#include "agent/libZel/http_exchange.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/network/web_trust.h"

using http_exchange::Request;

namespace {

/// Whatever the server asks for, but for what would be done with the account that the agent runs
/// under instead of the login: with its Kerberos tickets (Negotiate), or with its own log-in at the
/// domain, which winbind has (NTLM_WB).
constexpr long kLoginMethods =
    static_cast<long>(CURLAUTH_ANY & ~(CURLAUTH_NEGOTIATE | CURLAUTH_NTLM_WB));
/// Of SOCKS proxies, for the same reason: no GSSAPI. They may stand in the environment, too.
constexpr long kSocksLoginMethods = static_cast<long>(CURLAUTH_BASIC);
constexpr long kMaxGetRedirects = 10;
constexpr long kFirstErrorStatus = 400;
constexpr size_t kMaxLoggedBytes = 300;

/// What the caller asks for.
struct Order {
  const ZelString& url;
  const ZelString& user;
  const ZelString& password;
  const ZelString& proxy;
  const ZelString& proxyUser;
  const ZelString& proxyPassword;
  long long startOffset;
  long timeoutSeconds;
  bool failOnErrorStatus;
};

/// What the callbacks see.
struct Transfer {
  long long& received;
  const CurlProgress progress;
  void* const userData;
  bool isGivenUp = false;
};

const char* Utf8(const ZelString& text) {
  return text.GetString(kEncodingUtf8);
}

/// The URL for the log: as libcurl reads it, without the user, the query and the fragment.
std::string Loggable(const ZelString& text) {
  const CurlUrl url(Utf8(text), CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME);
  if (url.Result() != CURLUE_OK) return "a URL that is none";
  const std::string port = url.Part(CURLUPART_PORT);
  const std::string shown = url.Part(CURLUPART_SCHEME) + "://" + url.Part(CURLUPART_HOST) +
                            (port.empty() ? "" : ":" + port) + url.Part(CURLUPART_PATH);
  return shown.size() <= kMaxLoggedBytes ? shown : shown.substr(0, kMaxLoggedBytes) + "...";
}

/// libcurl's own texts name hosts and ports at most, but for this one, which has the proxy's whole
/// URL.
std::string Reason(const Request& request) {
  std::string reason = request.Reason();
  if (reason.starts_with("Unsupported proxy")) return "the proxy's URL cannot be used";
  return reason;
}

size_t Count(char*, size_t size, size_t count, void* context) {
  static_cast<Transfer*>(context)->received += static_cast<long long>(size * count);
  return size * count;
}

int Tell(void* context, curl_off_t expected, curl_off_t, curl_off_t, curl_off_t) {
  auto& transfer = *static_cast<Transfer*>(context);
  transfer.isGivenUp =
      transfer.isGivenUp || transfer.progress(transfer.userData, transfer.received,
                                              static_cast<long long>(expected)) != 0;
  return transfer.isGivenUp ? 1 : 0;
}

/// Texts end at a NUL for libcurl, which would then do something else than was asked for.
void CheckOrder(const Order& order) {
  for (const ZelString* text : {&order.url, &order.user, &order.password, &order.proxy,
                                &order.proxyUser, &order.proxyPassword}) {
    if (text->Utf8().find('\0') != std::string_view::npos) {
      throw std::runtime_error("there is a NUL character in what was asked for");
    }
  }
  if (order.startOffset < 0) throw std::runtime_error("the first byte is before the start");
  const bool isLimit = order.timeoutSeconds > 0 &&
                       order.timeoutSeconds <= std::numeric_limits<int32_t>::max() / 1000;
  if (!isLimit) throw std::runtime_error("the time limit is none");
}

std::string FileContent(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// The system's authorities, and those of the agent's configuration. `bundle` must live as long as
/// the request.
void TrustAuthorities(Request* request, std::string* bundle) {
  // Where the system keeps the authorities it trusts itself, those count.
  request->Set(CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NATIVE_CA));
  const std::filesystem::path file = GetWebAuthorities();
  if (file.empty()) return;
  const std::string own = FileContent(file);
  if (own.empty()) {
    LibraryLog().PrintWithNL("[http_check] ca_file cannot be read: %S", FromNativePath(file));
    return;
  }
  // What is set replaces the system's file, so that must be in it.
  const std::string systemFile = request->Text(CURLINFO_CAINFO);
  *bundle = (systemFile.empty() ? "" : FileContent(systemFile) + "\n") + own;
  curl_blob blob{bundle->data(), bundle->size(), CURL_BLOB_NOCOPY};
  request->SetContext(CURLOPT_CAINFO_BLOB, &blob);
}

void SetLogins(Request* request, const Order& order) {
  if (!order.user.IsEmpty() || !order.password.IsEmpty()) {
    request->Set(CURLOPT_USERNAME, Utf8(order.user));
    request->Set(CURLOPT_PASSWORD, Utf8(order.password));
  }
  // Neither login goes to a host that a redirect leads to.
  request->Set(CURLOPT_HTTPAUTH, kLoginMethods);
  request->Set(CURLOPT_SOCKS5_AUTH, kSocksLoginMethods);
  // The environment may name a proxy.
  request->Set(CURLOPT_PROXYAUTH, kLoginMethods);
  if (order.proxy.IsEmpty()) return;
  request->Set(CURLOPT_PROXY, Utf8(order.proxy));
  if (order.proxyUser.IsEmpty() && order.proxyPassword.IsEmpty()) return;
  request->Set(CURLOPT_PROXYUSERNAME, Utf8(order.proxyUser));
  request->Set(CURLOPT_PROXYPASSWORD, Utf8(order.proxyPassword));
}

void SetUp(Request* request, const Order& order, Transfer* transfer) {
  request->Set(CURLOPT_DEFAULT_PROTOCOL, "http");
  request->Set(CURLOPT_FOLLOWLOCATION, 1L);
  request->Set(CURLOPT_MAXREDIRS, kMaxGetRedirects);
  request->Set(CURLOPT_TIMEOUT, order.timeoutSeconds);
  // A name service that does not answer would be waited for beyond the limit.
  request->Set(CURLOPT_QUICK_EXIT, 1L);
  SetLogins(request, order);
  if (order.startOffset > 0) {
    request->SetSize(CURLOPT_RESUME_FROM_LARGE, static_cast<uint64_t>(order.startOffset));
  }
  // The body of an error may be long.
  request->Set(CURLOPT_FAILONERROR, order.failOnErrorStatus ? 1L : 0L);
  request->Set(CURLOPT_WRITEFUNCTION, Count);
  request->SetContext(CURLOPT_WRITEDATA, transfer);
  if (transfer->progress == nullptr) return;
  request->Set(CURLOPT_NOPROGRESS, 0L);
  request->Set(CURLOPT_XFERINFOFUNCTION, Tell);
  request->SetContext(CURLOPT_XFERINFODATA, transfer);
}

/// Nothing, or why it failed.
std::string GetFollowing(const Order& order, Transfer* transfer) {
  CheckOrder(order);
  std::string bundle;
  Request request(Utf8(order.url));
  SetUp(&request, order, transfer);
  TrustAuthorities(&request, &bundle);
  const CURLcode code = request.Perform();
  if (transfer->isGivenUp) return "it was given up";
  if (code != CURLE_OK) return Reason(request);
  const bool isError = order.failOnErrorStatus && request.Status() >= kFirstErrorStatus;
  return isError ? "the server answered with status " + std::to_string(request.Status()) : "";
}

}  // namespace

int CurlAdvancedGet(ZelString url, ZelString user, ZelString password, ZelString proxy,
                    ZelString proxyUser, ZelString proxyPassword, long long startOffset,
                    long timeoutSeconds, long long& received, bool failOnErrorStatus,
                    CurlProgress progress, void* userData) {
  return Guarded("CurlAdvancedGet", 0, [&] {
    received = 0;
    const Order order{url,         user,           password,
                      proxy,       proxyUser,      proxyPassword,
                      startOffset, timeoutSeconds, failOnErrorStatus};
    Transfer transfer{received, progress, userData};
    std::string reason;
    try {
      reason = GetFollowing(order, &transfer);
    } catch (const std::runtime_error& error) {
      reason = error.what();
    }
    if (reason.empty()) return 1;
    LibraryLog().PrintWithNL("GET %s failed: %s", Loggable(url), reason);
    return 0;
  });
}
