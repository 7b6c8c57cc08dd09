// Frames and messages of the user-session proxy: any bytes are refused or a message that survives
// the trip through its own document, and any text is a field that travels.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "agent/proxy_protocol/frame.h"
#include "agent/proxy_protocol/message.h"
#include "libZel/string.h"
#include "tests/fuzz/require.h"

using namespace proxy_protocol;

namespace {

// Hands out the input and is closed at its end.
class InputChannel : public Channel {
 public:
  explicit InputChannel(std::string_view input) : rest_(input) {}

  Result Read(void* bytes, size_t count, Deadline) override {
    if (count > rest_.size()) return {Result::Status::kClosed, "the end"};
    std::memcpy(bytes, rest_.data(), count);
    rest_.remove_prefix(count);
    return {};
  }
  Result Write(const void* bytes, size_t count, Deadline) override {
    written_.append(static_cast<const char*>(bytes), count);
    return {};
  }
  void Abort() override { rest_ = {}; }
  const std::string& Written() const { return written_; }

 private:
  std::string_view rest_;
  std::string written_;
};

void CheckDocument(std::string_view document) {
  const ParsedMessage first = ParseMessage(document);
  if (!first.error.empty()) return Require(first.message == Message{});
  const ParsedMessage second = ParseMessage(FormatMessage(first.message));
  // Escapes may make it longer than a message can be.
  Require(second.message == first.message ||
          FormatMessage(first.message).size() > kMaxDocumentBytes);
}

void CheckStream(std::string_view stream) {
  InputChannel channel(stream);
  for (size_t i = 0; i < stream.size(); ++i) {
    const Received received = Receive(channel, Deadline::max());
    if (!received.result) return;
    CheckDocument(FormatMessage(received.message));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  CheckDocument(input);
  CheckStream(input);
  CheckStream(FrameOf(std::string(input.substr(0, kMaxDocumentBytes))));

  const Message message{
      Message::Kind::kReply, "any", 1, -1, {{"text", std::string(ZelString(input).Utf8())}}};
  InputChannel sent("");
  if (!Send(sent, message, Deadline::max())) return 0;
  InputChannel back(sent.Written());
  Require(Receive(back, Deadline::max()).message == message);
  return 0;
}
