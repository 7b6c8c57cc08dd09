#include "agent/libZelCore/http_request.h"

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/impl/basic_parser.ipp>

#include "agent/libZel/whole_number.h"
#include "agent/libZelCore/invocation_depth.h"

namespace http = boost::beast::http;

namespace {

constexpr size_t kKeptBodyBytes = 16 * 1024;  // by a connection, for its next request
constexpr size_t kKeptFieldBytes = 1024;

/// Empties a string; one that grew large gives its memory back.
void Empty(std::string* text, size_t keptBytes) {
  if (text->capacity() > keptBytes) {
    *text = std::string();
  } else {
    text->clear();
  }
}

}  // namespace

void HttpRequest::Clear() {
  method = http::verb::unknown;
  for (std::string* field : {&target, &host, &origin, &authorization, &contentType}) {
    Empty(field, kKeptFieldBytes);
  }
  Empty(&body, kKeptBodyBytes);
  contentLength.reset();
  invocationDepth = 0;
  isHttp10 = false;
  isChunked = false;
  expectsContinue = false;
  isPart = false;
  isEncoded = false;
}

void HttpRequest::ReleaseLargeBody() {
  Empty(&body, kKeptBodyBytes);
}

void HttpRequestParser::on_request_impl(http::verb method, StringView, StringView target,
                                        int version, ErrorCode&) {
  request_->method = method;
  request_->target.assign(target.data(), target.size());
  request_->isHttp10 = version < 11;
}

void HttpRequestParser::on_field_impl(http::field name, StringView nameText, StringView value,
                                      ErrorCode& ec) {
  if (headerIsDone_) return;  // a trailer must not change who is calling
  switch (name) {
    case http::field::host:
      return TakeOnce(&request_->host, &hasHost_, nameText, value, ec);
    case http::field::origin:
      return TakeOnce(&request_->origin, &hasOrigin_, nameText, value, ec);
    case http::field::authorization:
      return TakeOnce(&request_->authorization, &hasAuthorization_, nameText, value, ec);
    case http::field::content_type:
      return TakeOnce(&request_->contentType, &hasContentType_, nameText, value, ec);
    case http::field::content_length: {
      const auto length = ReadWholeNumber<uint64_t>({value.data(), value.size()});
      if (!length || hasContentLength_) return Refuse("Content-Length cannot be used", ec);
      hasContentLength_ = true;
      request_->contentLength = *length;
      return;
    }
    case http::field::transfer_encoding:
      if (!boost::beast::iequals(value, "chunked") || request_->isChunked) {
        return Refuse("the only transfer coding understood is chunked", ec);
      }
      request_->isChunked = true;
      return;
    case http::field::expect:
      if (!boost::beast::iequals(value, "100-continue")) {
        return Refuse("the only expectation understood is 100-continue", ec);
      }
      request_->expectsContinue = true;
      return;
    case http::field::content_range:
      request_->isPart = true;
      return;
    case http::field::content_encoding:
      if (!value.empty() && !boost::beast::iequals(value, "identity")) request_->isEncoded = true;
      return;
    default:
      if (boost::beast::iequals(nameText, kInvocationDepthField))
        request_->invocationDepth = ParseInvocationDepth({value.data(), value.size()});
      return;
  }
}

void HttpRequestParser::on_header_impl(ErrorCode& ec) {
  headerIsDone_ = true;
  if (!hasHost_ && !request_->isHttp10) return Refuse("the Host field is missing", ec);
  if (request_->isChunked && hasContentLength_) {
    return Refuse("Content-Length and Transfer-Encoding exclude each other", ec);
  }
  if (request_->isChunked && request_->isHttp10) {
    return Refuse("HTTP/1.0 has no transfer codings", ec);
  }
}

size_t HttpRequestParser::on_body_impl(StringView body, ErrorCode&) {
  if (!discardsBody_) request_->body.append(body.data(), body.size());
  return body.size();
}

size_t HttpRequestParser::on_chunk_body_impl(uint64_t, StringView body, ErrorCode& ec) {
  return on_body_impl(body, ec);
}

void HttpRequestParser::TakeOnce(std::string* target, bool* isTaken, StringView name,
                                 StringView value, ErrorCode& ec) {
  if (*isTaken) return Refuse("the field " + std::string(name) + " is given twice", ec);
  *isTaken = true;
  target->assign(value.data(), value.size());
}

void HttpRequestParser::Refuse(std::string problem, ErrorCode& ec) {
  problem_ = std::move(problem);
  ec = http::error::bad_field;
}
