#include "agent/libZelCore/http_session.h"

#include <boost/asio/post.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <cstring>
#include <limits>

#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/excerpt.h"
#include "agent/libZelCore/http_call.h"
#include "agent/libZelCore/http_caller.h"
#include "agent/libZelCore/invocation_depth.h"
#include "agent/libZelCore/json_codec.h"
#include "agent/libZelCore/known_actions.h"

namespace asio = boost::asio;
namespace http = boost::beast::http;

namespace {

constexpr uint32_t kHeaderLimitBytes = 16 * 1024;
constexpr size_t kFirstBufferBytes = 1024;  // what an idle connection costs
constexpr size_t kLargestBufferBytes = 64 * 1024;
constexpr uint64_t kDiscardedBodyBytes = 64 * 1024;
constexpr uint64_t kSlowestReaderBytesPerSecond = 64 * 1024;
constexpr std::chrono::seconds kLingerTime{2};

constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

using Patience = ActionPool::Patience;

/// As far as the action's name tells it.
Patience PatienceOf(std::string_view action, const Settings& settings) {
  if (WaitsForPerson(action)) return Patience::kForPeople;
  const bool asksElsewhere = AsksMaster(action) && !settings.masterAddress.empty();
  return asksElsewhere || WaitsForNetwork(action) ? Patience::kForNetwork : Patience::kOrdinary;
}

bool IsJsonType(std::string_view contentType) {
  contentType = contentType.substr(0, contentType.find(';'));
  while (contentType.ends_with(' ') || contentType.ends_with('\t')) contentType.remove_suffix(1);
  return boost::beast::iequals(contentType, "application/json");
}

}  // namespace

HttpSession::HttpSession(std::shared_ptr<HttpShared> shared, asio::io_context& network,
                         std::string address)
    : shared_(std::move(shared)), network_(network), address_(std::move(address)) {
  lastActivity_ = Clock::now().time_since_epoch().count();
}

void HttpSession::LogFailure(const std::exception& error) const {
  CoreLog().ErrorWithNL("Request %s from %s failed: %s", requestId_.c_str(), address_.c_str(),
                        error.what());
}

void HttpSession::LogNoRequest(const std::string& reason) const {
  if (!shared_->MayLogStranger()) return;
  CoreLog().WarningWithNL("Connection from %s refused: %s", address_.c_str(), reason.c_str());
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
    case Phase::kUploading:
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
  // What is being read into the piece's buffer ends by itself.
  if (!isReadingPiece_) LosePiece();
  shared_->NoteFreedMemory();
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
  caller_ = {};
  parser_.emplace(&request_);
  parser_->header_limit(kHeaderLimitBytes);
  parser_->body_limit(boost::none);  // what it is depends on the target
  headerIsDone_ = false;
  bodyIsDone_ = false;
  bodySha256_.clear();
  refusal_.reset();
  requestId_.clear();
  // A stopping server waits for nobody's next request.
  const uint32_t patienceMs = shared_->isStopping ? 0 : shared_->settings.idleTimeoutMs;
  Enter(Phase::kWaiting, std::chrono::milliseconds(patienceMs));
}

/// Waits for bytes, making room for them first.
void HttpSession::ReadMore() {
  if (!MakeRoom()) return RefuseMalformed(http::error::header_limit);
  ReadSome(asio::buffer(buffer_.data() + end_, buffer_.size() - end_));
}

bool HttpSession::MakeRoom() {
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
    if (buffer_.size() >= kLargestBufferBytes) return false;
    buffer_.resize(expectsMuch ? kLargestBufferBytes : buffer_.size() * 2);
  }
  return true;
}

void HttpSession::OnRead(const ErrorCode& ec, size_t byteCount) {
  Guarded([&] {
    if (ec) return Close();
    const Phase phase = phase_.load(std::memory_order_relaxed);
    if (phase == Phase::kLingering) return ReadSome(asio::buffer(buffer_));
    end_ += byteCount;
    if (phase == Phase::kUploading) return AdvanceChunks();
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
                       {},
                       {}});
  }
  if (ec == http::error::body_limit)
    return ReplyError(BodyTooLarge(shared_->settings.maxBodyBytes));
  const std::string& problem = parser_->Problem();
  ReplyError({400, "malformed_request", problem.empty() ? ec.message() : problem, {}, {}});
}

/// Decides from the header alone whether the request may go on: a body is read only then.
void HttpSession::Admit() {
  requestId_ = shared_->NextRequestId();
  closesAfterReply_ = !parser_->keep_alive();

  if (!request_.origin.empty() && !OriginIsOwn()) {
    return Refuse({403,
                   "foreign_origin",
                   "pages of " + Excerpt(request_.origin) + " may not use this agent",
                   {},
                   {}});
  }
  route_ = FindRoute(request_.method, request_.target);
  const bool isUpload = route_.kind == HttpRoute::Kind::kUpload;
  const uint64_t limit = shared_->settings.maxBodyBytes;
  if (!isUpload && request_.contentLength.value_or(0) > limit)
    return RefuseMalformed(http::error::body_limit);
  parser_->body_limit(isUpload ? shared_->settings.maxUploadBytes : limit);
  if (route_.refusal) return Refuse(*route_.refusal);
  if (route_.kind == HttpRoute::Kind::kHealth) return ReadBody();
  Authenticate();
}

bool HttpSession::OriginIsOwn() const {
  const std::string own = (shared_->settings.tls ? "https://" : "http://") + request_.host;
  return boost::beast::iequals(request_.origin, own);
}

void HttpSession::Authenticate() {
  CallerCheck check = CheckCallerQuickly(*shared_, request_, Facts());
  bodySha256_ = std::move(check.bodySha256);
  if (check.answer.verdict != Authenticator::Verdict::kNeedsSlowCheck)
    return OnChecked(check.answer, check.problem);

  EnterUnlimited(Phase::kChecking);
  const bool isTaken = shared_->passwordChecker.Submit(
      address_, request_.authorization,
      [self = shared_from_this()](const Authenticator::Answer& checked) {
        asio::post(self->network_, [self, checked] {
          self->Guarded([&] {
            self->Enter(Phase::kReading,
                        std::chrono::milliseconds(self->shared_->settings.requestTimeoutMs));
            self->OnChecked(checked, {});
          });
        });
      });
  if (isTaken) return;
  Enter(Phase::kReading, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
  Refuse({503, "at_capacity", "no further password can be checked now", "Retry-After: 1\r\n", {}});
}

void HttpSession::OnChecked(const Authenticator::Answer& answer, const std::string& problem) {
  if (answer.verdict == Authenticator::Verdict::kAccepted) return AdmitCaller(answer.caller);

  HttpRefusal refusal{401,
                      "unauthorized",
                      problem,
                      "WWW-Authenticate: Basic realm=\"zelagent\", charset=\"UTF-8\"\r\n",
                      {}};
  if (request_.authorization.empty()) {
    refusal.message = "credentials are needed";
  } else {
    if (problem.empty()) refusal.message = "the credentials are not accepted";
    refusal.delay =
        shared_->slowdown.NoteFailure(address_, answer.caller.login, FailureSlowdown::Clock::now());
    refusal.claimant = Excerpt(OwnerText(answer.caller));
  }
  Refuse(std::move(refusal));
}

void HttpSession::AdmitCaller(const Caller& caller) {
  caller_ = caller;
  caller_.address = address_;
  shared_->slowdown.NoteSuccess(address_, caller_.login);
  shared_->aliases.Hear(OwnerText(caller_));
  if (route_.kind == HttpRoute::Kind::kCall) return AdmitCall();
  if (route_.kind == HttpRoute::Kind::kUpload) {
    const auto refusal = CheckContent(request_);
    return refusal ? Refuse(*refusal) : AdmitUpload();
  }
  ReadBody();
}

void HttpSession::AdmitCall() {
  if (!IsJsonType(request_.contentType)) {
    return Refuse({415, "wrong_content_type", "the content type must be application/json", {}, {}});
  }
  if (!request_.contentLength && !request_.isChunked) {
    return Refuse({411, "length_required", "the body's length is not given", {}, {}});
  }
  const std::string& action = route_.action;
  if (!shared_->actions.Contains(action)) {
    return Refuse({404, "unknown_action", "there is no action " + action, {}, {}});
  }
  if (!MayCall(shared_->settings, caller_, action)) {
    return Refuse({403, "administrators_only", action + " is for administrators only", {}, {}});
  }
  ReadBody();
}

bool HttpSession::WantsContinue() const {
  return request_.expectsContinue && !request_.isHttp10 && begin_ == end_ && !parser_->is_done();
}

/// Goes on with the body of an admitted request.
void HttpSession::ReadBody() {
  if (route_.kind != HttpRoute::Kind::kCall) parser_->DiscardBody();
  if (!WantsContinue()) return Advance();
  SayContinue();
}

void HttpSession::SayContinue() {
  Enter(Phase::kContinuing, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
  Write(asio::buffer(kContinue));
}

/// Answers with an error once the rest of the request is out of the way: a reply that meets an
/// unread body would be lost in the connection's reset.
void HttpSession::Refuse(HttpRefusal refusal) {
  LogRefusal(refusal);
  refusal_ = std::move(refusal);
  if (parser_->is_done()) return SendRefusal();
  const bool isSmall = !request_.isChunked && !request_.expectsContinue &&
                       refusal_->status != 413 &&
                       request_.contentLength.value_or(0) <= kDiscardedBodyBytes;
  if (!isSmall) {
    closesAfterReply_ = true;
    return SendRefusal();
  }
  parser_->DiscardBody();
  Advance();
}

void HttpSession::LogRefusal(const HttpRefusal& refusal) const {
  const bool isStranger = caller_.login.empty();
  if (isStranger && !shared_->MayLogStranger()) return;
  const std::string claimant = refusal.claimant.empty() ? "" : " as \"" + refusal.claimant + "\"";
  CoreLog().WarningWithNL("Request %s from %s%S refused: %u %s: %s", requestId_.c_str(),
                          address_.c_str(), ZelString(claimant), refusal.status,
                          std::string(refusal.code).c_str(), refusal.message.c_str());
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
  if (route_.kind != HttpRoute::Kind::kCall) {
    std::string& body = reply_.BeginBody();
    if (route_.kind == HttpRoute::Kind::kHealth) {
      body += R"({"status":"ok"})";
    } else {
      EncodeActions(shared_->actions, &body);
    }
    return SendReply(200, {});
  }
  EnterUnlimited(Phase::kRunning);
  const Patience patience = PatienceOf(route_.action, shared_->settings);
  const auto run = [self = shared_from_this(), patience] { self->RunAction(patience); };
  if (!shared_->pool.Submit(run, patience)) RefuseAction();
}

void HttpSession::RefuseAction() {
  Refuse({503, "at_capacity", "no further action can be run now", "Retry-After: 1\r\n", {}});
}

/// On an action thread.
void HttpSession::RunAction(Patience patience) {
  Guarded([&] {
    const std::string& action = route_.action;
    if (const auto refusal = CheckDigest(request_.body, bodySha256_)) return ReplyError(*refusal);
    ZelContainer parameters;
    const auto refusal =
        DecodeParameters(request_.body, caller_, shared_->actions.Signature(action), &parameters);
    request_.ReleaseLargeBody();
    if (refusal) return ReplyError(*refusal);
    if (patience == Patience::kOrdinary && NamesUrl(parameters))
      return RunAmongPatient(std::move(parameters));
    InvokeAction(std::move(parameters));
  });
}

/// On an action thread that is needed for others: what a URL leads to may let the action wait.
void HttpSession::RunAmongPatient(ZelContainer parameters) {
  const auto run = [self = shared_from_this(), parameters = std::move(parameters)] {
    self->Guarded([&] { self->InvokeAction(parameters); });
  };
  if (!shared_->pool.HandOn(run, Patience::kForNetwork)) RefuseAction();
}

/// On an action thread.
void HttpSession::InvokeAction(ZelContainer parameters) {
  const std::string& action = route_.action;
  const bool isAgent = caller_.kind == Caller::Kind::kAgent;
  const InvocationContext context(isAgent ? request_.invocationDepth : 0, OwnerText(caller_));
  const uint32_t code = shared_->actions.Invoke(action, &parameters);
  if (shared_->audit) shared_->audit({caller_, "action " + action, requestId_, code});
  CoreLog().DetailWithNL("Request %s of %s from %s: %s returned %u", requestId_.c_str(),
                         caller_.login.c_str(), address_.c_str(), action.c_str(), code);
  // The action may have gone since it was looked up; one that ran may hand on this code itself.
  if (code == kInvokeUnknownAction && !shared_->actions.Contains(action)) {
    return ReplyError({404, "unknown_action", "there is no action " + action, {}, {}});
  }
  std::string& body = reply_.BeginBody();
  body += R"({"code":)";
  AppendNumber(code, &body);
  body += R"(,"container":)";
  EncodeContainer(parameters, &body);
  body += '}';
  SendReply(200, {});
}

void HttpSession::ReplyError(const HttpRefusal& refusal) {
  reply_.WriteError(refusal);
  SendReply(refusal.status, refusal.extraFields);
}

void HttpSession::SendReply(unsigned status, std::string_view extraFields) {
  if (shared_->isStopping.load(std::memory_order_relaxed)) closesAfterReply_ = true;
  shared_->NoteFreedMemory();
  const bool hasBody = request_.method != http::verb::head;
  const asio::const_buffer bytes = reply_.Finish(
      {status, requestId_, extraFields, request_.isHttp10, closesAfterReply_, hasBody});
  const auto forSize = std::chrono::seconds(bytes.size() / kSlowestReaderBytesPerSecond);
  {
    std::lock_guard lock(socketMutex_);
    if (isClosed_) return;
    Enter(Phase::kWriting, std::chrono::milliseconds(shared_->settings.requestTimeoutMs) + forSize);
    const size_t written = WriteAtOnce(bytes);
    if (written < bytes.size()) return Write(bytes + written);
  }
  OnWrittenAtOnce();
}

/// Goes on after a reply that went out at once, perhaps on an action thread.
void HttpSession::OnWrittenAtOnce() {
  if (closesAfterReply_ || begin_ != end_) {
    asio::post(network_, [self = shared_from_this()] { self->OnWritten({}); });
    return;
  }
  reply_.DropLarge();
  BeginRequest();
  std::lock_guard lock(socketMutex_);
  if (!isClosed_) ReadMore();
}

void HttpSession::OnWritten(const ErrorCode& ec) {
  Guarded([&] {
    if (ec) return Close();
    if (phase_.load(std::memory_order_relaxed) == Phase::kContinuing) {
      if (pieceDone_) return BeginPiece();
      Enter(Phase::kReading, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
      return ReadMore();
    }
    reply_.DropLarge();
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
  const bool everythingIsRead = (bodyIsDone_ || parser_->is_done()) && begin_ == end_;
  if (everythingIsRead) return Close();
  ShutdownSending();
  ReadSome(asio::buffer(buffer_));
}
