#include "agent/libZelCore/http_session.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/status.hpp>
#include <charconv>
#include <cstring>
#include <ctime>
#include <limits>

#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/invocation_depth.h"
#include "agent/libZelCore/json_codec.h"
#include "agent/libZelCore/parameter_types.h"

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;

namespace {

constexpr uint32_t kHeaderLimitBytes = 16 * 1024;
constexpr size_t kFirstBufferBytes = 1024;  // what an idle connection costs
constexpr size_t kLargestBufferBytes = 64 * 1024;
constexpr size_t kKeptReplyBytes = 64 * 1024;
constexpr size_t kHeadRoomBytes = 640;  // in front of a body, for the longest head
constexpr uint64_t kDiscardedBodyBytes = 64 * 1024;
constexpr uint64_t kSlowestReaderBytesPerSecond = 64 * 1024;
constexpr std::chrono::seconds kLingerTime{2};

constexpr std::string_view kHealthTarget = "/v1/health";
constexpr std::string_view kActionsTarget = "/v1/actions";
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

std::string_view ReasonPhrase(unsigned status) {
  const auto text = http::obsolete_reason(static_cast<http::status>(status));
  return {text.data(), text.size()};
}

/// The date as RFC 9110 section 5.6.7 wants it, made once a second on each thread.
std::string_view HttpDate() {
  thread_local std::time_t madeAt = -1;
  thread_local char text[32];
  const std::time_t now = std::time(nullptr);
  if (now != madeAt) {
    constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto seconds = std::chrono::sys_seconds(std::chrono::seconds(now));
    const auto day = std::chrono::floor<std::chrono::days>(seconds);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(seconds - day);
    std::snprintf(
        text, sizeof text, "%s, %02u %s %04d %02d:%02d:%02d GMT",
        kDays[std::chrono::weekday(day).c_encoding()], static_cast<unsigned>(date.day()) % 100U,
        kMonths[static_cast<unsigned>(date.month()) - 1], static_cast<int>(date.year()) % 10000,
        static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
        static_cast<int>(time.seconds().count()));
    madeAt = now;
  }
  return text;
}

void AppendNumber(uint64_t number, std::string* out) {
  char digits[24];
  out->append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

/// Undoes percent-encoding (RFC 3986 section 2.1); false when it is malformed.
bool DecodePercent(std::string_view text, std::string* decoded) {
  decoded->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded->push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return false;
    unsigned value = 0;
    const char* end = text.data() + i + 3;
    if (std::from_chars(text.data() + i + 1, end, value, 16).ptr != end) return false;
    decoded->push_back(static_cast<char>(value));
    i += 2;
  }
  return true;
}

/// The path of a target in origin form or absolute form (RFC 9112 section 3.2).
std::string_view TargetPath(std::string_view target) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (!target.starts_with(scheme)) continue;
    const size_t slash = target.find('/', scheme.size());
    return slash == std::string_view::npos ? "/" : target.substr(slash);
  }
  return target;
}

bool IsJsonType(std::string_view contentType) {
  contentType = contentType.substr(0, contentType.find(';'));
  while (contentType.ends_with(' ') || contentType.ends_with('\t')) contentType.remove_suffix(1);
  return boost::beast::iequals(contentType, "application/json");
}

bool IsRead(http::verb method) {
  return method == http::verb::get || method == http::verb::head;
}

}  // namespace

HttpSession::HttpSession(std::shared_ptr<HttpShared> shared, asio::io_context& network,
                         std::string address)
    : shared_(std::move(shared)), network_(network), address_(std::move(address)) {
  lastActivity_ = Clock::now().time_since_epoch().count();
}

/// Runs one step of the session; a failure ends the connection and nothing else.
template <typename Step>
void HttpSession::Guarded(Step step) {
  try {
    if (!isClosed_) step();
    return;
  } catch (const std::exception& error) {
    CoreLog().ErrorWithNL("Request %s from %s failed: %s", requestId_.c_str(), address_.c_str(),
                          error.what());
  }
  Close();
}

void HttpSession::Enter(Phase phase, Clock::duration longest) {
  const auto now = Clock::now();
  lastActivity_.store(now.time_since_epoch().count(), std::memory_order_relaxed);
  deadline_.store((now + longest).time_since_epoch().count(), std::memory_order_relaxed);
  phase_.store(phase, std::memory_order_release);
}

void HttpSession::EnterUnlimited(Phase phase) {
  deadline_.store(std::numeric_limits<Clock::rep>::max(), std::memory_order_relaxed);
  phase_.store(phase, std::memory_order_release);
}

bool HttpSession::HasExpired(Clock::time_point now) const {
  return deadline_.load(std::memory_order_relaxed) <= now.time_since_epoch().count();
}

bool HttpSession::IsDroppable() const {
  switch (phase_.load(std::memory_order_acquire)) {
    case Phase::kChecking:
    case Phase::kRunning:
    case Phase::kWriting:
    case Phase::kClosed:
      return false;
    default:
      return true;
  }
}

HttpSession::Clock::time_point HttpSession::LastActivity() const {
  return Clock::time_point(Clock::duration(lastActivity_.load(std::memory_order_relaxed)));
}

void HttpSession::Close() {
  {
    std::lock_guard lock(socketMutex_);
    if (isClosed_) return;
    isClosed_ = true;
    const bool leavesReplyUnsent = phase_.load(std::memory_order_relaxed) == Phase::kWriting;
    EnterUnlimited(Phase::kClosed);
    if (delay_ != nullptr) delay_->cancel();
    CloseSocket(leavesReplyUnsent);
  }
  shared_->Remove(this);
}

void HttpSession::BeginHandshake() {
  Enter(Phase::kHandshake, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
}

void HttpSession::BeginServing() {
  Guarded([this] {
    buffer_.resize(kFirstBufferBytes);
    BeginRequest();
    ReadMore();
  });
}

void HttpSession::BeginRequest() {
  request_.Clear();
  parser_.emplace(&request_);
  parser_->header_limit(kHeaderLimitBytes);
  parser_->body_limit(shared_->settings.maxBodyBytes);
  headerIsDone_ = false;
  refusal_.reset();
  requestId_.clear();
  // A stopping server waits for nobody's next request.
  const uint32_t patienceMs = shared_->isStopping ? 0 : shared_->settings.idleTimeoutMs;
  Enter(Phase::kWaiting, std::chrono::milliseconds(patienceMs));
}

/// Waits for bytes, making room for them first.
void HttpSession::ReadMore() {
  if (begin_ == end_) {
    begin_ = end_ = 0;
    const bool wasLarge = buffer_.size() > kHeaderLimitBytes && !headerIsDone_;
    if (wasLarge) buffer_ = std::vector<char>(kFirstBufferBytes);
  }
  if (end_ == buffer_.size() && begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  const bool expectsMuch = headerIsDone_ && request_.contentLength.value_or(0) > buffer_.size();
  if (end_ == buffer_.size() || (expectsMuch && buffer_.size() < kLargestBufferBytes)) {
    if (buffer_.size() >= kLargestBufferBytes) return RefuseMalformed(http::error::header_limit);
    buffer_.resize(expectsMuch ? kLargestBufferBytes : buffer_.size() * 2);
  }
  ReadSome(asio::buffer(buffer_.data() + end_, buffer_.size() - end_));
}

void HttpSession::OnRead(const ErrorCode& ec, size_t byteCount) {
  Guarded([&] {
    if (ec) return Close();
    const Phase phase = phase_.load(std::memory_order_relaxed);
    if (phase == Phase::kLingering) return ReadSome(asio::buffer(buffer_));
    end_ += byteCount;
    if (phase == Phase::kWaiting) {
      Enter(Phase::kReading, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
    } else {
      lastActivity_.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }
    Advance();
  });
}

/// Reads as much of the request as the buffer holds.
void HttpSession::Advance() {
  while (!parser_->is_done()) {
    if (begin_ == end_) return ReadMore();
    boost::beast::error_code ec;
    begin_ += parser_->put(asio::const_buffer(buffer_.data() + begin_, end_ - begin_), ec);
    if (ec == http::error::need_more) return ReadMore();
    if (ec) return RefuseMalformed(ec);
    if (!headerIsDone_ && parser_->is_header_done()) {
      headerIsDone_ = true;
      parser_->eager(true);
      return Admit();
    }
  }
  Dispatch();
}

/// Nothing can be told about where the next request begins, so the connection ends.
void HttpSession::RefuseMalformed(const ErrorCode& ec) {
  closesAfterReply_ = true;
  if (requestId_.empty()) requestId_ = shared_->NextRequestId();
  if (ec == http::error::header_limit) {
    return ReplyError({431,
                       "header_too_large",
                       "the header is larger than " + std::to_string(kHeaderLimitBytes) + " bytes",
                       {}});
  }
  if (ec == http::error::body_limit) {
    return ReplyError(
        {413,
         "body_too_large",
         "the body is larger than " + std::to_string(shared_->settings.maxBodyBytes) + " bytes",
         {}});
  }
  const std::string& problem = parser_->Problem();
  ReplyError({400, "malformed_request", problem.empty() ? ec.message() : problem, {}});
}

/// Decides from the header alone whether the request may go on: a body is read only then.
void HttpSession::Admit() {
  requestId_ = shared_->NextRequestId();
  closesAfterReply_ = !parser_->keep_alive();

  if (!request_.origin.empty() && !OriginIsOwn()) {
    return Refuse(
        {403, "foreign_origin", "pages of " + request_.origin + " may not use this agent", {}});
  }
  if (!FindRoute()) return;
  if (route_ == Route::kHealth) return ReadBody();
  Authenticate();
}

/// Sets the route, or refuses the request.
bool HttpSession::FindRoute() {
  const std::string_view path = TargetPath(request_.target);
  route_ = Route::kNone;
  if (path == kHealthTarget) {
    route_ = Route::kHealth;
  } else if (path == kActionsTarget) {
    route_ = Route::kActions;
  } else if (path.starts_with(kActionsTarget) && path.size() > kActionsTarget.size() + 1 &&
             path[kActionsTarget.size()] == '/') {
    route_ = Route::kCall;
    if (!DecodePercent(path.substr(kActionsTarget.size() + 1), &action_)) {
      Refuse({400, "malformed_request", "the target's percent-encoding is malformed", {}});
      return false;
    }
  }
  if (route_ == Route::kNone) {
    Refuse({404, "not_found", "there is nothing at " + request_.target, {}});
    return false;
  }
  if (route_ == Route::kCall && request_.method != http::verb::post) {
    Refuse({405, "method_not_allowed", "actions are called with POST", "Allow: POST\r\n"});
    return false;
  }
  if (route_ != Route::kCall && !IsRead(request_.method)) {
    Refuse({405, "method_not_allowed", "this can only be read", "Allow: GET, HEAD\r\n"});
    return false;
  }
  return true;
}

bool HttpSession::OriginIsOwn() const {
  const std::string own = (shared_->settings.tls ? "https://" : "http://") + request_.host;
  return boost::beast::iequals(request_.origin, own);
}

void HttpSession::Authenticate() {
  const Authenticator::Answer answer = shared_->authenticator.CheckQuickly(request_.authorization);
  if (answer.verdict != Authenticator::Verdict::kNeedsSlowCheck) return OnChecked(answer);

  EnterUnlimited(Phase::kChecking);
  const bool isTaken = shared_->passwordChecker.Submit(
      address_, request_.authorization,
      [self = shared_from_this()](const Authenticator::Answer& checked) {
        asio::post(self->network_, [self, checked] {
          self->Guarded([&] {
            self->Enter(Phase::kReading,
                        std::chrono::milliseconds(self->shared_->settings.requestTimeoutMs));
            self->OnChecked(checked);
          });
        });
      });
  if (isTaken) return;
  Enter(Phase::kReading, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
  Refuse({503, "at_capacity", "too many passwords are being checked", "Retry-After: 1\r\n"});
}

void HttpSession::OnChecked(const Authenticator::Answer& answer) {
  if (answer.verdict == Authenticator::Verdict::kAccepted) return AdmitCaller(answer.caller);

  Refusal refusal{401, "unauthorized", "",
                  "WWW-Authenticate: Basic realm=\"zelagent\", charset=\"UTF-8\"\r\n"};
  if (request_.authorization.empty()) {
    refusal.message = "credentials are needed";
  } else {
    refusal.message = "the credentials are not accepted";
    refusal.delay =
        shared_->slowdown.NoteFailure(address_, answer.caller.login, FailureSlowdown::Clock::now());
  }
  Refuse(std::move(refusal));
}

void HttpSession::AdmitCaller(const Caller& caller) {
  caller_ = caller;
  caller_.address = address_;
  shared_->slowdown.NoteSuccess(address_, caller_.login);
  if (route_ != Route::kCall) return ReadBody();

  if (!IsJsonType(request_.contentType)) {
    return Refuse({415, "wrong_content_type", "the content type must be application/json", {}});
  }
  if (!request_.contentLength && !request_.isChunked) {
    return Refuse({411, "length_required", "the body's length is not given", {}});
  }
  if (!shared_->actions.Contains(action_)) {
    return Refuse({404, "unknown_action", "there is no action " + action_, {}});
  }
  if (!MayCall()) {
    return Refuse({403, "administrators_only", action_ + " is for administrators only", {}});
  }
  ReadBody();
}

bool HttpSession::MayCall() const {
  if (caller_.kind == Caller::Kind::kAgent || caller_.role == kAdministrator) return true;
  const std::vector<std::string>& reserved = shared_->settings.administratorsOnly;
  return !std::binary_search(reserved.begin(), reserved.end(), action_);
}

/// Goes on with the body of an admitted request.
void HttpSession::ReadBody() {
  if (route_ != Route::kCall) parser_->DiscardBody();
  const bool wantsContinue =
      request_.expectsContinue && !request_.isHttp10 && begin_ == end_ && !parser_->is_done();
  if (!wantsContinue) return Advance();
  Enter(Phase::kContinuing, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
  Write(asio::buffer(kContinue));
}

/// Answers with an error once the rest of the request is out of the way: a reply that meets an
/// unread body would be lost in the connection's reset.
void HttpSession::Refuse(Refusal refusal) {
  CoreLog().WarningWithNL("Request %s from %s refused: %u %s: %s", requestId_.c_str(),
                          address_.c_str(), refusal.status, std::string(refusal.code).c_str(),
                          refusal.message.c_str());
  refusal_ = std::move(refusal);
  if (parser_->is_done()) return SendRefusal();
  const bool isSmall = !request_.isChunked && !request_.expectsContinue &&
                       request_.contentLength.value_or(0) <= kDiscardedBodyBytes;
  if (!isSmall) {
    closesAfterReply_ = true;
    return SendRefusal();
  }
  parser_->DiscardBody();
  Advance();
}

void HttpSession::SendRefusal() {
  if (refusal_->delay.count() == 0) return ReplyError(*refusal_);
  if (delay_ == nullptr) delay_ = std::make_unique<asio::steady_timer>(network_);
  EnterUnlimited(Phase::kDelaying);
  delay_->expires_after(refusal_->delay);
  delay_->async_wait([self = shared_from_this()](const ErrorCode&) {
    self->Guarded([&] { self->ReplyError(*self->refusal_); });
  });
}

/// The request is complete.
void HttpSession::Dispatch() {
  if (refusal_) return SendRefusal();
  if (route_ == Route::kHealth) {
    BeginBody() += R"({"status":"ok"})";
    return SendReply(200, {});
  }
  if (route_ == Route::kActions) return ListActions();

  EnterUnlimited(Phase::kRunning);
  if (shared_->pool.Submit([self = shared_from_this()] { self->RunAction(); })) return;
  Refuse({503, "at_capacity", "too many actions are running", "Retry-After: 1\r\n"});
}

void HttpSession::ListActions() {
  std::string& body = BeginBody();
  body += '[';
  for (const ActionInfo& action : shared_->actions.List()) {
    if (body.back() == '}') body += ',';
    body += R"({"name":)";
    EncodeString(action.name, &body);
    body += R"(,"signature":)";
    EncodeString(action.signature, &body);
    body += '}';
  }
  body += ']';
  SendReply(200, {});
}

/// On an action thread.
void HttpSession::RunAction() {
  Guarded([this] {
    ZelContainer parameters;
    if (!PrepareParameters(&parameters)) return;

    const bool isAgent = caller_.kind == Caller::Kind::kAgent;
    const InvocationContext context(isAgent ? request_.invocationDepth : 0, OwnerText(caller_));
    const uint32_t code = shared_->actions.Invoke(action_, &parameters);
    if (shared_->audit) shared_->audit({caller_, action_, requestId_, code});
    CoreLog().DetailWithNL("Request %s of %s from %s: %s returned %u", requestId_.c_str(),
                           caller_.login.c_str(), address_.c_str(), action_.c_str(), code);
    // The action may have gone since it was looked up; one that ran may hand on this code itself.
    if (code == kInvokeUnknownAction && !shared_->actions.Contains(action_)) {
      return ReplyError({404, "unknown_action", "there is no action " + action_, {}});
    }
    std::string& body = BeginBody();
    body += R"({"code":)";
    AppendNumber(code, &body);
    body += R"(,"container":)";
    EncodeContainer(parameters, &body);
    body += '}';
    SendReply(200, {});
  });
}

/// Decodes the body and writes who is calling; false when the request was refused.
bool HttpSession::PrepareParameters(ZelContainer* parameters) {
  static const ZelString kConsoleUser("DACurrentConsoleUser");
  static const ZelString kRequestInfo("HttpProtocolRequestInfo");
  static const ZelString kRequestAddress("HttpProtocolRequestAddress");
  static const ZelString kRequestUser("HttpProtocolRequestUser");

  JsonDecodeResult decoded = DecodeContainer(request_.body);
  if (!decoded.error.empty()) {
    ReplyError({400, "malformed_body", std::move(decoded.error), {}});
    return false;
  }
  *parameters = std::move(decoded.container);
  request_.ReleaseLargeBody();
  const bool isConsole = caller_.kind == Caller::Kind::kConsoleUser;
  if (isConsole) {
    parameters->Remove(kConsoleUser);
    parameters->Remove(kRequestInfo);
  }
  std::string wrongType = FindWrongType(shared_->actions.Signature(action_), *parameters);
  if (!wrongType.empty()) {
    ReplyError({400, "wrong_type", std::move(wrongType), {}});
    return false;
  }
  if (!isConsole) return true;

  ZelContainer info;
  info.SetString(kRequestAddress, ZelString(caller_.address), kNoIndex);
  info.SetString(kRequestUser, ZelString(caller_.login), kNoIndex);
  parameters->SetString(kConsoleUser, ZelString(caller_.login), kNoIndex);
  parameters->SetContainer(kRequestInfo, info, kNoIndex);
  return true;
}

void HttpSession::ReplyError(const Refusal& refusal) {
  std::string& body = BeginBody();
  body += R"({"error":{"code":)";
  EncodeString(refusal.code, &body);
  body += R"(,"message":)";
  EncodeString(ZelString(refusal.message).Utf8(), &body);
  body += "}}";
  SendReply(refusal.status, refusal.extraFields);
}

/// The reply's body goes behind a room that the head is put into once the body's length is known,
/// so that one piece of memory goes out in one write.
std::string& HttpSession::BeginBody() {
  reply_.assign(kHeadRoomBytes, ' ');
  return reply_;
}

void HttpSession::AppendHead(unsigned status, std::string_view extraFields, size_t bodyBytes) {
  head_ = "HTTP/1.1 ";
  AppendNumber(status, &head_);
  head_ += ' ';
  head_ += ReasonPhrase(status);
  head_ += "\r\nDate: ";
  head_ += HttpDate();
  head_ += "\r\nContent-Type: application/json\r\nCache-Control: no-store\r\nX-Request-Id: ";
  head_ += requestId_;
  head_ += "\r\nContent-Length: ";
  AppendNumber(bodyBytes, &head_);
  head_ += "\r\n";
  head_ += extraFields;
  if (closesAfterReply_) {
    head_ += "Connection: close\r\n";
  } else if (request_.isHttp10) {
    head_ += "Connection: keep-alive\r\n";
  }
  head_ += "\r\n";
}

void HttpSession::SendReply(unsigned status, std::string_view extraFields) {
  if (shared_->isStopping.load(std::memory_order_relaxed)) closesAfterReply_ = true;
  shared_->lastReply.store(std::chrono::steady_clock::now(), std::memory_order_relaxed);
  AppendHead(status, extraFields, reply_.size() - kHeadRoomBytes);
  if (head_.size() > kHeadRoomBytes) throw std::length_error("the reply's head is too long");
  const size_t start = kHeadRoomBytes - head_.size();
  std::memcpy(reply_.data() + start, head_.data(), head_.size());
  if (request_.method == http::verb::head) reply_.resize(kHeadRoomBytes);

  const asio::const_buffer bytes(reply_.data() + start, reply_.size() - start);
  const auto forSize = std::chrono::seconds(reply_.size() / kSlowestReaderBytesPerSecond);
  {
    std::lock_guard lock(socketMutex_);
    if (isClosed_) return;
    Enter(Phase::kWriting, std::chrono::milliseconds(shared_->settings.requestTimeoutMs) + forSize);
    const size_t written = WriteAtOnce(bytes);
    if (written < bytes.size()) return Write(bytes + written);
  }
  OnWrittenAtOnce();
}

void HttpSession::DropLargeReply() {
  if (reply_.capacity() > kKeptReplyBytes) reply_ = std::string();
}

/// Goes on after a reply that went out at once, perhaps on an action thread.
void HttpSession::OnWrittenAtOnce() {
  if (closesAfterReply_ || begin_ != end_) {
    asio::post(network_, [self = shared_from_this()] { self->OnWritten({}); });
    return;
  }
  DropLargeReply();
  BeginRequest();
  std::lock_guard lock(socketMutex_);
  if (!isClosed_) ReadMore();
}

void HttpSession::OnWritten(const ErrorCode& ec) {
  Guarded([&] {
    if (ec) return Close();
    if (phase_.load(std::memory_order_relaxed) == Phase::kContinuing) {
      Enter(Phase::kReading, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
      return ReadMore();
    }
    DropLargeReply();
    if (closesAfterReply_) return Linger();
    BeginRequest();
    if (begin_ == end_) return ReadMore();
    Enter(Phase::kReading, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
    Advance();
  });
}

/// Ends a connection so that the client can still read the last reply (RFC 9112 section 9.6).
void HttpSession::Linger() {
  Enter(Phase::kLingering, kLingerTime);
  const bool everythingIsRead = parser_->is_done() && begin_ == end_;
  if (everythingIsRead) return Close();
  ShutdownSending();
  ReadSome(asio::buffer(buffer_));
}

namespace {

/// The parts that differ between plain TCP and TLS are what `Stream` is and how a connection
/// begins.
template <typename Stream>
class StreamSession : public HttpSession {
 public:
  template <typename... StreamArguments>
  StreamSession(std::shared_ptr<HttpShared> shared, asio::io_context& network, std::string address,
                StreamArguments&&... arguments)
      : HttpSession(std::move(shared), network, std::move(address)),
        stream_(std::forward<StreamArguments>(arguments)...) {}

 protected:
  std::shared_ptr<StreamSession> Self() {
    return std::static_pointer_cast<StreamSession>(shared_from_this());
  }
  void ReadSome(asio::mutable_buffer buffer) override {
    stream_.async_read_some(buffer, [self = Self()](const ErrorCode& ec, size_t byteCount) {
      self->OnRead(ec, byteCount);
    });
  }
  void Write(asio::const_buffer buffer) override {
    asio::async_write(stream_, buffer,
                      [self = Self()](const ErrorCode& ec, size_t) { self->OnWritten(ec); });
  }
  size_t WriteAtOnce(asio::const_buffer) override { return 0; }
  void ShutdownSending() override {
    ErrorCode ignored;
    stream_.lowest_layer().shutdown(tcp::socket::shutdown_send, ignored);
  }
  void CloseSocket(bool discardsUnsent) override {
    ErrorCode ignored;
    if (discardsUnsent) stream_.lowest_layer().set_option(tcp::socket::linger(true, 0), ignored);
    stream_.lowest_layer().close(ignored);
  }

  Stream stream_;
};

class PlainSession : public StreamSession<tcp::socket> {
 public:
  using StreamSession::StreamSession;
  void Start() override {
    ErrorCode ignored;
    stream_.non_blocking(true, ignored);
    BeginServing();
  }

 protected:
  size_t WriteAtOnce(asio::const_buffer buffer) override {
    ErrorCode ec;  // what it is, the waiting write that follows finds out
    const size_t written = stream_.write_some(buffer, ec);
    return ec ? 0 : written;
  }
};

class TlsSession : public StreamSession<asio::ssl::stream<tcp::socket>> {
 public:
  using StreamSession::StreamSession;
  void Start() override {
    BeginHandshake();
    stream_.async_handshake(asio::ssl::stream_base::server, [self = Self()](const ErrorCode& ec) {
      auto* session = static_cast<TlsSession*>(self.get());
      if (ec) return session->Close();
      session->BeginServing();
    });
  }
};

}  // namespace

std::shared_ptr<HttpSession> MakePlainSession(std::shared_ptr<HttpShared> shared,
                                              asio::io_context& network, tcp::socket socket,
                                              std::string address) {
  return std::make_shared<PlainSession>(std::move(shared), network, std::move(address),
                                        std::move(socket));
}

std::shared_ptr<HttpSession> MakeTlsSession(std::shared_ptr<HttpShared> shared,
                                            asio::io_context& network, tcp::socket socket,
                                            std::string address, asio::ssl::context& context) {
  return std::make_shared<TlsSession>(std::move(shared), network, std::move(address),
                                      std::move(socket), context);
}
