// What comes in on a socket for echo requests: the header of a packet is left where it says that it
// ends, within the packet, and nothing but the answer to a request counts as that.

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "agent/libZel/platform/posix/icmp_message.h"
#include "tests/fuzz/require.h"

namespace {

using Bytes = std::span<const uint8_t>;

EchoRequest RequestOf(bool isV6) {
  EchoRequest request{isV6, 0x1234, 0x5678, {}};
  request.payload.fill(0xA5);
  return request;
}

// What the peer makes of the request, RFC 792 and RFC 4443.
std::vector<uint8_t> AnswerTo(const EchoRequest& request) {
  const auto bytes = request.Bytes();
  std::vector<uint8_t> answer(bytes.begin(), bytes.end());
  answer[0] = request.isV6 ? 129 : 0;
  return answer;
}

void CheckMessage(Bytes message) {
  for (const bool isV6 : {false, true}) {
    const EchoRequest request = RequestOf(isV6);
    const std::vector<uint8_t> answer = AnswerTo(request);
    Require(request.IsAnsweredBy(answer));
    if (!request.IsAnsweredBy(message)) continue;
    Require(message.size() == answer.size());
    // Its checksum is the system's to look at.
    Require(std::equal(answer.begin(), answer.begin() + 2, message.begin()));
    Require(std::equal(answer.begin() + 4, answer.end(), message.begin() + 4));
  }
}

void CheckPacket(Bytes packet) {
  const Bytes message = BehindIpv4Header(packet);
  CheckMessage(message);
  if (message.empty()) return;
  Require(message.data() > packet.data());
  Require(message.data() + message.size() == packet.data() + packet.size());
  Require(packet.size() - message.size() >= 20 && packet.size() - message.size() <= 60);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy of its own, so that reading past the end is seen.
  const std::vector<uint8_t> bytes(data, data + size);
  CheckMessage(bytes);
  CheckPacket(bytes);
  // One byte of an answer changed is none, but for the checksum.
  if (size < 2) return 0;
  const EchoRequest request = RequestOf(false);
  std::vector<uint8_t> answer = AnswerTo(request);
  const size_t place = data[0] % answer.size();
  answer[place] ^= data[1];
  Require(request.IsAnsweredBy(answer) == (data[1] == 0 || place == 2 || place == 3));
  return 0;
}
