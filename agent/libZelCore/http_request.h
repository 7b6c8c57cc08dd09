#pragma once

#include <boost/beast/http/basic_parser.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// What the agent looks at in one request. The strings keep their memory from request to request.
struct HttpRequest {
  boost::beast::http::verb method = boost::beast::http::verb::unknown;
  std::string target;
  std::string host;
  std::string origin;
  std::string authorization;
  std::string contentType;
  std::string body;
  std::optional<uint64_t> contentLength;
  uint32_t invocationDepth = 0;  ///< what another agent says of it, see invocation_depth.h
  bool isHttp10 = false;
  bool isChunked = false;
  bool expectsContinue = false;
  bool isPart = false;     ///< the body is a part of the content (Content-Range)
  bool isEncoded = false;  ///< the content has a coding other than "identity"

  void Clear();
  /// Gives back the memory of a large body.
  void ReleaseLargeBody();
};

/// Reads one HTTP/1.x request (RFC 9112) into an `HttpRequest`. Stricter than its base where two
/// readings of one message would be possible: a second Host, Origin, Authorization, Content-Type or
/// Content-Length field, any transfer coding but "chunked", and both lengths at once are refused.
class HttpRequestParser : public boost::beast::http::basic_parser<true> {
 public:
  explicit HttpRequestParser(HttpRequest* request) : request_(request) {}

  /// Drops the body instead of keeping it.
  void DiscardBody() { discardsBody_ = true; }
  /// What was wrong, when the parser reported `kBadField`; else empty.
  const std::string& Problem() const { return problem_; }

 private:
  using ErrorCode = boost::beast::error_code;
  using StringView = boost::beast::string_view;

  void on_request_impl(boost::beast::http::verb method, StringView methodText, StringView target,
                       int version, ErrorCode& ec) override;
  void on_response_impl(int, StringView, int, ErrorCode&) override {}
  void on_field_impl(boost::beast::http::field name, StringView nameText, StringView value,
                     ErrorCode& ec) override;
  void on_header_impl(ErrorCode& ec) override;
  void on_body_init_impl(boost::optional<uint64_t> const&, ErrorCode&) override {}
  size_t on_body_impl(StringView body, ErrorCode& ec) override;
  void on_chunk_header_impl(uint64_t, StringView, ErrorCode&) override {}
  size_t on_chunk_body_impl(uint64_t, StringView body, ErrorCode& ec) override;
  void on_finish_impl(ErrorCode&) override {}

  void TakeOnce(std::string* target, bool* isTaken, StringView name, StringView value,
                ErrorCode& ec);
  void Refuse(std::string problem, ErrorCode& ec);

  HttpRequest* request_;
  bool headerIsDone_ = false;
  bool discardsBody_ = false;
  bool hasHost_ = false;
  bool hasOrigin_ = false;
  bool hasAuthorization_ = false;
  bool hasContentType_ = false;
  bool hasContentLength_ = false;
  std::string problem_;
};
