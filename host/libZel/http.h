#pragma once

#include <cstdint>
#include <memory>

#include "libZel/debug.h"
#include "libZel/string.h"

class NetworkSocket;

/// What a client needs for TLS with other agents; owned by the agent core.
class SslContext;
/// What a client needs to prove each request; owned by the agent core.
class PacContext;

// NOLINTBEGIN(readability-identifier-naming): the library's own names
/// Methods of HTTP (RFC 9110 section 9).
enum HttpMethod_e : int {
  kHttpGet = 1,
  kHttpHead = 2,
  kHttpPost = 3,
  kHttpPut = 4,
  kHttpDelete = 5,
};
// NOLINTEND(readability-identifier-naming)

/// A request, or the answer to one.
class HttpMessage {
 public:
  /// `status` is that of a response; 0 for none yet.
  explicit HttpMessage(int status) : status_(status) {}
  virtual ~HttpMessage() = default;

  void SetMethod(HttpMethod_e method) { method_ = method; }
  HttpMethod_e GetMethod() const { return method_; }
  /// "/alias/file name": the client encodes what may not stand in a URL.
  void SetResourcePath(const ZelString& path) { resourcePath_ = path; }
  const ZelString& GetResourcePath() const { return resourcePath_; }
  void SetStatus(int status) { status_ = status; }
  int GetStatus() const { return status_; }
  /// The body, where it is no file; of a response at most 64 KiB.
  void SetBody(const ZelString& body) { body_ = body; }
  const ZelString& GetBody() const { return body_; }

 private:
  HttpMethod_e method_ = kHttpGet;
  ZelString resourcePath_;
  int status_;
  ZelString body_;
};

/// A request whose body is a file.
class HttpFileMessage : public HttpMessage {
 public:
  HttpFileMessage() : HttpMessage(0) {}

  /// `sendPath` is the file to be sent, streamed from the disk. `receivePath` is empty.
  void SetTo(const ZelString& sendPath, const ZelString& receivePath) {
    sendPath_ = sendPath;
    receivePath_ = receivePath;
  }
  const ZelString& GetSendPath() const { return sendPath_; }
  const ZelString& GetReceivePath() const { return receivePath_; }

 private:
  ZelString sendPath_;
  ZelString receivePath_;
};

/// Exchanges messages with other agents over HTTP/1.1, or HTTPS after `EnableSsl`.
///
/// Threads: one at a time; clients are independent. Nothing here throws.
class HttpClient {
 public:
  /// How long a connection may take to come about, and how long it may bring next to nothing before
  /// it is given up, in milliseconds; ~0U for 10 and 30 seconds.
  HttpClient(uint32_t connectTimeoutMs, uint32_t stallTimeoutMs);
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  /// Where the client logs; not owned, may be null.
  void SetDebugContext(ZelDebugContext* context);
  /// An agent's name and its HTTP password. They do not cross a network in clear: without TLS or
  /// PAC only loopback gets them, unless the agent's settings allow more.
  void SetAuthentification(const ZelString& agentName, const ZelString& password);
  /// From now on over TLS. Not owned; null refuses every exchange.
  void EnableSsl(SslContext* context);
  /// From now on each request carries a proof of who sends it instead of the password. Not owned;
  /// null refuses every exchange.
  void EnablePac(PacContext* context);

  /// Sends `request` and waits for the answer. `agent` is the other agent's identity for the log,
  /// or null. `checksStatus` not 0: an answer with a status beyond the 200s is a failure. `socket`
  /// is null. Returns 0 on success; the status for one that is a failure; else a number below 100
  /// (libcurl's, or 99 for what stopped before). The reason of a failure goes to the log.
  int SendAndRecv(const ZelString* agent, const ZelString& host, HttpMessage& request,
                  HttpMessage& response, uint32_t port, int checksStatus, NetworkSocket* socket);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
