#pragma once

#include <boost/asio/buffer.hpp>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

/// An error as the protocol tells it, see docs/protocol.md.
struct HttpRefusal {
  unsigned status = 0;
  std::string_view code;
  std::string message;
  std::string_view extraFields;  ///< whole lines
  std::chrono::milliseconds delay{0};
  std::string claimant = {};  ///< for the log alone: as whom the refused one calls itself
};

/// The refusal of a body that has, or says that it has, more than `limitBytes`.
HttpRefusal BodyTooLarge(uint64_t limitBytes);

/// What a reply's head says beside its status.
struct HttpReplyHead {
  unsigned status = 0;
  std::string_view requestId;
  std::string_view extraFields;  ///< whole lines
  bool isHttp10 = false;
  bool closes = false;  ///< the connection ends with it
  bool hasBody = true;  ///< not so for HEAD, which is told the length alone
};

void AppendNumber(uint64_t number, std::string* out);

/// One reply after the other, in memory that is kept. The body goes behind a room that the head is
/// put into once the body's length is known, so that one piece of memory goes out in one write.
class HttpReply {
 public:
  /// Where to append the body.
  std::string& BeginBody();
  void WriteError(const HttpRefusal& refusal);
  /// The whole reply; valid until the next one begins.
  boost::asio::const_buffer Finish(const HttpReplyHead& head);
  /// Gives back the memory of a large one.
  void DropLarge();

 private:
  void WriteHead(const HttpReplyHead& head, size_t bodyBytes);

  std::string head_;
  std::string text_;
};
