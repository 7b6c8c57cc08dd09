#pragma once

#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZelCore/http_caller.h"
#include "agent/libZelCore/http_reply.h"
#include "agent/libZelCore/http_request.h"
#include "agent/libZelCore/http_route.h"
#include "agent/libZelCore/http_shared.h"
#include "agent/libZelCore/http_upload.h"

/// One connection of the HTTP protocol. Requests are answered one after the other; bytes of the
/// next one wait in the buffer.
///
/// Threads: everything happens on the network thread of the connection but for `RunAction` and what
/// it calls, which have the session to themselves while the action runs (nothing else is under way
/// on the socket then). They send the reply and begins the wait for the next request from there, so
/// that neither costs the time to wake the network thread. An upload's thread asks for piece after
/// piece of the body, which the network thread reads.
class HttpSession : public std::enable_shared_from_this<HttpSession>, private UploadSource {
 public:
  using Clock = std::chrono::steady_clock;
  using ErrorCode = boost::system::error_code;

  ~HttpSession() override = default;
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  /// Begins to serve; call on the session's network thread after it was added to the shared set.
  virtual void Start() = 0;
  /// Ends the connection and everything waiting on it. May be called again.
  void Close();

  /// Safe from every thread.
  boost::asio::io_context& Network() { return network_; }
  bool HasExpired(Clock::time_point now) const;
  /// Whether the server may drop it for a new connection: no request of it is being answered.
  bool IsDroppable() const;
  Clock::time_point LastActivity() const;

 protected:
  HttpSession(std::shared_ptr<HttpShared> shared, boost::asio::io_context& network,
              std::string address);

  virtual void ReadSome(boost::asio::mutable_buffer buffer) = 0;
  /// Reads `byteCount` bytes, and more as far as they are there and the buffer holds them.
  virtual void ReadAtLeast(boost::asio::mutable_buffer buffer, size_t byteCount) = 0;
  virtual void Write(boost::asio::const_buffer buffer) = 0;
  /// Writes what the socket takes without waiting: how many bytes that was.
  virtual size_t WriteAtOnce(boost::asio::const_buffer buffer) = 0;
  virtual void ShutdownSending() = 0;
  /// `discardsUnsent` gives back at once what the client has not taken yet.
  virtual void CloseSocket(bool discardsUnsent) = 0;
  virtual ConnectionFacts Facts() = 0;

  /// Runs one step of the session; a failure ends the connection and nothing else.
  template <typename Step>
  void Guarded(Step step) {
    try {
      if (!isClosed_) step();
      return;
    } catch (const std::exception& error) {
      LogFailure(error);
    }
    Close();
  }

  void BeginHandshake();
  void BeginServing();
  /// Logs why the connection ends before there is a request.
  void LogNoRequest(const std::string& reason) const;
  void OnRead(const ErrorCode& ec, size_t byteCount);
  void OnWritten(const ErrorCode& ec);
  void OnPieceRead(const ErrorCode& ec, size_t byteCount);

 private:
  enum class Phase : uint8_t {
    kHandshake,   ///< TLS
    kWaiting,     ///< between requests
    kReading,     ///< a request has begun
    kContinuing,  ///< "100 Continue" is being written
    kChecking,    ///< the password checker has it
    kDelaying,    ///< a refusal is held back
    kRunning,     ///< an action thread has it
    kUploading,   ///< an upload's thread has it
    kWriting,     ///< a reply is being written
    kLingering,   ///< the last reply is out; what the client still sends is dropped
    kClosed,
  };
  void LogFailure(const std::exception& error) const;
  void Enter(Phase phase, Clock::duration longest);
  void EnterUnlimited(Phase phase);

  void BeginRequest();
  void ReadMore();
  /// Makes room in the buffer for bytes to come; false when there is no more to be had.
  bool MakeRoom();
  void Advance();
  void RefuseMalformed(const ErrorCode& ec);
  void Admit();
  bool OriginIsOwn() const;
  void Authenticate();
  void OnChecked(const Authenticator::Answer& answer, const std::string& problem);
  void AdmitCaller(const Caller& caller);
  void AdmitCall();
  void AdmitUpload();
  bool WantsContinue() const;
  void SayContinue();
  void ReadBody();
  void Dispatch();
  void RunAction(ActionPool::Patience patience);
  void RunAmongPatient(ZelContainer parameters);
  void InvokeAction(ZelContainer parameters);
  void RefuseAction();

  void RunUpload(const UploadRequest& upload);
  void OnUploadEnded(const UploadOutcome& outcome);
  void ReadPiece(boost::asio::mutable_buffer buffer, Done done) override;
  void BeginPiece();
  void ReadIntoPiece();
  void AdvanceChunks();
  void TakePiece(const char* bytes, size_t byteCount, bool isLast);
  void FinishPiece(UploadPiece piece);
  void FailPiece(HttpRefusal failure);
  void LosePiece();

  void Refuse(HttpRefusal refusal);
  void LogRefusal(const HttpRefusal& refusal) const;
  void SendRefusal();
  void ReplyError(const HttpRefusal& refusal);
  void SendReply(unsigned status, std::string_view extraFields);
  void OnWrittenAtOnce();
  void Linger();

  const std::shared_ptr<HttpShared> shared_;
  boost::asio::io_context& network_;
  const std::string address_;
  std::string requestId_;

  std::vector<char> buffer_;  ///< received bytes: those from begin_ to end_ are not yet read
  size_t begin_ = 0;
  size_t end_ = 0;

  HttpRequest request_;
  std::optional<HttpRequestParser> parser_;
  HttpRoute route_;
  Caller caller_;           ///< without a login until the request is known to be somebody's
  std::string bodySha256_;  ///< what the body's digest must be; empty: anything
  std::optional<HttpRefusal> refusal_;
  bool headerIsDone_ = false;
  bool bodyIsDone_ = false;  ///< of an upload, which the parser does not see
  bool closesAfterReply_ = false;

  Done pieceDone_;  ///< while a piece is awaited
  boost::asio::mutable_buffer pieceBuffer_;
  Clock::time_point pieceBegin_;
  size_t pieceBytes_ = 0;
  uint64_t uploadRest_ = 0;      ///< bytes to come of a body of known length
  bool isReadingPiece_ = false;  ///< straight into the piece's buffer
  bool saysContinue_ = false;    ///< before the first piece

  HttpReply reply_;
  std::unique_ptr<boost::asio::steady_timer> delay_;

  std::atomic<Phase> phase_{Phase::kHandshake};
  std::atomic<Clock::rep> deadline_{0};
  std::atomic<Clock::rep> lastActivity_{0};
  std::mutex socketMutex_;  ///< closing against an action thread that uses the socket
  std::atomic<bool> isClosed_{false};
};
