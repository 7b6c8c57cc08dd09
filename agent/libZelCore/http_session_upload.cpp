// How a session serves uploads.

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/beast/http/error.hpp>
#include <cstring>
#include <utility>

#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/http_session.h"

namespace asio = boost::asio;
namespace http = boost::beast::http;

namespace {

// What an upload must bring within the time for stalls, while that much is missing.
constexpr uint64_t kLeastPieceBytes = 64 * 1024;
// Handing a piece over costs a thread switch, so where bytes come fast a piece gets larger than
// that.
constexpr size_t kLargePieceBytes = 512 * 1024;
constexpr std::chrono::milliseconds kFast{10};

/// For the audit trail. A connection that is gone has no status: the code is that of a request that
/// did not arrive in time.
uint32_t CodeOf(const UploadOutcome& outcome) {
  constexpr uint32_t kRequestTimeout = 408;
  if (!outcome.refusal) return 0;
  return outcome.refusal->status != 0 ? outcome.refusal->status : kRequestTimeout;
}

}  // namespace

void HttpSession::AdmitUpload() {
  if (!request_.contentLength && !request_.isChunked) {
    return Refuse({411, "length_required", "the body's length is not given", {}, {}});
  }
  const uint64_t limit = shared_->settings.maxUploadBytes;
  if (request_.contentLength.value_or(0) > limit) return Refuse(BodyTooLarge(limit));

  UploadRequest upload{caller_, route_.alias, route_.file, request_.contentLength, bodySha256_};
  uploadRest_ = request_.contentLength.value_or(0);
  saysContinue_ = WantsContinue();
  EnterUnlimited(Phase::kUploading);
  const bool isTaken = shared_->uploads.Start(
      [self = shared_from_this(), upload = std::move(upload)] { self->RunUpload(upload); });
  if (isTaken) return;
  Enter(Phase::kReading, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
  Refuse({503, "at_capacity", "no further file can be stored now", "Retry-After: 1\r\n", {}});
}

/// On the upload's thread.
void HttpSession::RunUpload(const UploadRequest& upload) {
  UploadOutcome outcome = HttpUpload(shared_->aliases, upload, *this).Run();
  if (shared_->audit) {
    const std::string text = "upload " + upload.alias + "/" + upload.file + " bytes " +
                             std::to_string(outcome.byteCount);
    shared_->audit({upload.caller, text, requestId_, CodeOf(outcome)});
  }
  asio::post(network_, [self = shared_from_this(), outcome = std::move(outcome)] {
    self->Guarded([&] { self->OnUploadEnded(outcome); });
  });
}

void HttpSession::OnUploadEnded(const UploadOutcome& outcome) {
  Enter(Phase::kReading, std::chrono::milliseconds(shared_->settings.requestTimeoutMs));
  if (outcome.refusal && outcome.refusal->status == 0) return Close();
  if (outcome.refusal && !outcome.isBegun) return Refuse(*outcome.refusal);

  bodyIsDone_ = outcome.isWhole;
  if (outcome.refusal) {
    if (!bodyIsDone_) closesAfterReply_ = true;
    return ReplyError(*outcome.refusal);
  }
  std::string& body = reply_.BeginBody();
  body += R"({"bytes":)";
  AppendNumber(outcome.byteCount, &body);
  body += '}';
  SendReply(201, {});
}

/// On the upload's thread.
void HttpSession::ReadPiece(asio::mutable_buffer buffer, Done done) {
  asio::post(network_, [self = shared_from_this(), buffer, done = std::move(done)]() mutable {
    self->pieceBuffer_ = buffer;
    self->pieceDone_ = std::move(done);
    if (self->isClosed_) return self->LosePiece();
    self->Guarded([&] { self->BeginPiece(); });
  });
}

void HttpSession::BeginPiece() {
  pieceBegin_ = Clock::now();
  if (std::exchange(saysContinue_, false)) return SayContinue();
  Enter(Phase::kUploading, std::chrono::milliseconds(shared_->settings.stallTimeoutMs));
  if (request_.isChunked) return AdvanceChunks();

  const size_t wanted = std::min<uint64_t>(pieceBuffer_.size(), uploadRest_);
  const size_t there = std::min(wanted, end_ - begin_);
  if (there > 0 || wanted == 0) {
    const char* const bytes = buffer_.data() + begin_;
    begin_ += there;
    uploadRest_ -= there;
    return TakePiece(bytes, there, uploadRest_ == 0);
  }
  pieceBytes_ = 0;
  ReadIntoPiece();
}

void HttpSession::ReadIntoPiece() {
  const size_t wanted = std::min<uint64_t>(pieceBuffer_.size() - pieceBytes_, uploadRest_);
  isReadingPiece_ = true;
  try {
    ReadAtLeast(asio::buffer(pieceBuffer_ + pieceBytes_, wanted),
                std::min<uint64_t>(wanted, kLeastPieceBytes));
  } catch (const std::exception&) {
    // Nothing is under way that would tell the upload.
    isReadingPiece_ = false;
    Close();
  }
}

/// Into the piece's buffer. Also called when the session has been closed.
void HttpSession::OnPieceRead(const ErrorCode& ec, size_t byteCount) {
  isReadingPiece_ = false;
  if (ec || isClosed_) {
    LosePiece();
    return Close();
  }
  uploadRest_ -= byteCount;
  pieceBytes_ += byteCount;
  const bool isLarge = pieceBytes_ >= std::min(kLargePieceBytes, pieceBuffer_.size());
  const bool comesFast = Clock::now() - pieceBegin_ < kFast;
  if (!isLarge && uploadRest_ > 0 && comesFast) return ReadIntoPiece();
  FinishPiece({pieceBytes_, uploadRest_ == 0, {}});
}

/// Reads a piece of a chunked body as far as the session's buffer holds it.
void HttpSession::AdvanceChunks() {
  std::string& body = request_.body;
  while (!parser_->is_done() && body.size() < kLeastPieceBytes && begin_ != end_) {
    boost::beast::error_code ec;
    begin_ += parser_->put(asio::const_buffer(buffer_.data() + begin_, end_ - begin_), ec);
    if (ec == http::error::need_more) break;
    if (ec == http::error::body_limit)
      return FailPiece(BodyTooLarge(shared_->settings.maxUploadBytes));
    if (ec) return FailPiece({400, "malformed_request", ec.message(), {}, {}});
  }
  if (parser_->is_done() || body.size() >= kLeastPieceBytes) {
    TakePiece(body.data(), body.size(), parser_->is_done());
    return body.clear();
  }
  if (!MakeRoom()) return FailPiece({400, "malformed_request", "a chunk has no end", {}, {}});
  ReadSome(asio::buffer(buffer_.data() + end_, buffer_.size() - end_));
}

void HttpSession::TakePiece(const char* bytes, size_t byteCount, bool isLast) {
  if (byteCount > 0) std::memcpy(pieceBuffer_.data(), bytes, byteCount);
  FinishPiece({byteCount, isLast, {}});
}

void HttpSession::FinishPiece(UploadPiece piece) {
  EnterUnlimited(Phase::kUploading);
  std::exchange(pieceDone_, nullptr)(std::move(piece));
}

void HttpSession::FailPiece(HttpRefusal failure) {
  if (!isClosed_) EnterUnlimited(Phase::kUploading);
  std::exchange(pieceDone_, nullptr)({0, false, std::move(failure)});
}

/// The connection is gone, or about to be closed.
void HttpSession::LosePiece() {
  if (!pieceDone_) return;
  const auto limit = std::chrono::milliseconds(shared_->settings.stallTimeoutMs);
  const bool hasStalled = pieceBegin_ != Clock::time_point() && Clock::now() - pieceBegin_ >= limit;
  FailPiece({0, {}, hasStalled ? "the connection stalled" : "the connection was cut", {}, {}});
}
