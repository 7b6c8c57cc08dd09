#include "agent/libZelCore/http_reply.h"

#include <boost/beast/http/status.hpp>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "agent/libZelCore/json_codec.h"
#include "libZel/string.h"

namespace http = boost::beast::http;

namespace {

constexpr size_t kKeptBytes = 16 * 1024;  // by a connection, for its next reply
constexpr size_t kHeadRoomBytes = 640;    // in front of a body, for the longest head

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

}  // namespace

HttpRefusal BodyTooLarge(uint64_t limitBytes) {
  return {413,
          "body_too_large",
          "the body is larger than " + std::to_string(limitBytes) + " bytes",
          {},
          {}};
}

void AppendNumber(uint64_t number, std::string* out) {
  char digits[24];
  out->append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

std::string& HttpReply::BeginBody() {
  text_.assign(kHeadRoomBytes, ' ');
  return text_;
}

void HttpReply::WriteError(const HttpRefusal& refusal) {
  std::string& body = BeginBody();
  body += R"({"error":{"code":)";
  EncodeString(refusal.code, &body);
  body += R"(,"message":)";
  EncodeString(ZelString(refusal.message).Utf8(), &body);
  body += "}}";
}

boost::asio::const_buffer HttpReply::Finish(const HttpReplyHead& head) {
  WriteHead(head, text_.size() - kHeadRoomBytes);
  if (head_.size() > kHeadRoomBytes) throw std::length_error("the reply's head is too long");
  const size_t start = kHeadRoomBytes - head_.size();
  std::memcpy(text_.data() + start, head_.data(), head_.size());
  if (!head.hasBody) text_.resize(kHeadRoomBytes);
  return {text_.data() + start, text_.size() - start};
}

void HttpReply::DropLarge() {
  if (text_.capacity() > kKeptBytes) text_ = std::string();
}

void HttpReply::WriteHead(const HttpReplyHead& head, size_t bodyBytes) {
  head_ = "HTTP/1.1 ";
  AppendNumber(head.status, &head_);
  head_ += ' ';
  head_ += ReasonPhrase(head.status);
  head_ += "\r\nDate: ";
  head_ += HttpDate();
  head_ += "\r\nContent-Type: application/json\r\nCache-Control: no-store\r\nX-Request-Id: ";
  head_ += head.requestId;
  head_ += "\r\nContent-Length: ";
  AppendNumber(bodyBytes, &head_);
  head_ += "\r\n";
  head_ += head.extraFields;
  if (head.closes) {
    head_ += "Connection: close\r\n";
  } else if (head.isHttp10) {
    head_ += "Connection: keep-alive\r\n";
  }
  head_ += "\r\n";
}
