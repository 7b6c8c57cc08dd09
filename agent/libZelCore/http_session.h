#pragma once

#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZelCore/http_request.h"
#include "agent/libZelCore/http_shared.h"

/// One connection of the HTTP protocol. Requests are answered one after the other; bytes of the
/// next one wait in the buffer.
///
/// Threads: everything happens on the network thread of the connection but for `RunAction`, which
/// has the session to itself while the action runs (nothing else is under way on the socket then).
/// It sends the reply and begins the wait for the next request from there, so that neither costs
/// the time to wake the network thread.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  using Clock = std::chrono::steady_clock;
  using ErrorCode = boost::system::error_code;

  virtual ~HttpSession() = default;
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
  virtual void Write(boost::asio::const_buffer buffer) = 0;
  /// Writes what the socket takes without waiting: how many bytes that was.
  virtual size_t WriteAtOnce(boost::asio::const_buffer buffer) = 0;
  virtual void ShutdownSending() = 0;
  /// `discardsUnsent` gives back at once what the client has not taken yet.
  virtual void CloseSocket(bool discardsUnsent) = 0;

  void BeginHandshake();
  void BeginServing();
  void OnRead(const ErrorCode& ec, size_t byteCount);
  void OnWritten(const ErrorCode& ec);

 private:
  enum class Phase : uint8_t {
    kHandshake,   ///< TLS
    kWaiting,     ///< between requests
    kReading,     ///< a request has begun
    kContinuing,  ///< "100 Continue" is being written
    kChecking,    ///< the password checker has it
    kDelaying,    ///< a refusal is held back
    kRunning,     ///< an action thread has it
    kWriting,     ///< a reply is being written
    kLingering,   ///< the last reply is out; what the client still sends is dropped
    kClosed,
  };
  enum class Route { kNone, kHealth, kActions, kCall };

  struct Refusal {
    unsigned status = 0;
    std::string_view code;
    std::string message;
    std::string_view extraFields;  ///< whole lines
    std::chrono::milliseconds delay{0};
  };

  template <typename Step>
  void Guarded(Step step);
  void Enter(Phase phase, Clock::duration longest);
  void EnterUnlimited(Phase phase);

  void BeginRequest();
  void ReadMore();
  void Advance();
  void RefuseMalformed(const ErrorCode& ec);
  void Admit();
  bool FindRoute();
  bool OriginIsOwn() const;
  void Authenticate();
  void OnChecked(const Authenticator::Answer& answer);
  void AdmitCaller(const Caller& caller);
  /// Whether the caller's role allows the action, whatever its parameters.
  bool MayCall() const;
  void ReadBody();
  void Dispatch();
  void ListActions();
  void RunAction();
  bool PrepareParameters(ZelContainer* parameters);

  void Refuse(Refusal refusal);
  void SendRefusal();
  void ReplyError(const Refusal& refusal);
  std::string& BeginBody();
  void SendReply(unsigned status, std::string_view extraFields);
  void OnWrittenAtOnce();
  void DropLargeReply();
  void AppendHead(unsigned status, std::string_view extraFields, size_t bodyBytes);
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
  Route route_ = Route::kNone;
  std::string action_;
  Caller caller_;
  std::optional<Refusal> refusal_;
  bool headerIsDone_ = false;
  bool closesAfterReply_ = false;

  std::string head_;
  std::string reply_;
  std::unique_ptr<boost::asio::steady_timer> delay_;

  std::atomic<Phase> phase_{Phase::kHandshake};
  std::atomic<Clock::rep> deadline_{0};
  std::atomic<Clock::rep> lastActivity_{0};
  std::mutex socketMutex_;  ///< closing against an action thread that uses the socket
  std::atomic<bool> isClosed_{false};
};

/// Sessions over plain TCP and over TLS.
std::shared_ptr<HttpSession> MakePlainSession(std::shared_ptr<HttpShared> shared,
                                              boost::asio::io_context& network,
                                              boost::asio::ip::tcp::socket socket,
                                              std::string address);
std::shared_ptr<HttpSession> MakeTlsSession(std::shared_ptr<HttpShared> shared,
                                            boost::asio::io_context& network,
                                            boost::asio::ip::tcp::socket socket,
                                            std::string address,
                                            boost::asio::ssl::context& context);
