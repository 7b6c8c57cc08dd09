// What a file server answers from the negotiation to the log-off: whatever it says, the client ends
// with a result or a sentence for the log. The first byte chooses the user, or a single parser.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/libZel/smb/exchange.h"
#include "agent/libZel/smb/messages.h"
#include "agent/libZel/smb/session.h"
#include "tests/agent/memory_stream.h"
#include "tests/fuzz/require.h"

namespace {

enum class Kind : uint8_t { kAnonymous, kSigned, kParsers, kCount };

const Deadline kNever = Deadline::max();

template <typename Operation>
void Attempt(Operation operation) {
  try {
    operation();
  } catch (const std::runtime_error& error) {
    Require(error.what()[0] != '\0');
  }
}

/// The whole way without a user, so that the answers need no knowledge of a password.
void Climb(const smb::Bytes& answers) {
  MemoryStream stream(answers);
  smb::NetbiosSession transport(stream, false);
  smb::Session session(transport, "127.0.0.1");
  _CsSmbTreeInfo tree{};
  Attempt([&] {
    session.Negotiate(kNever);
    session.LogIn("", "", kNever);
    session.OpenShare("docs", tree, kNever);
    session.CloseShare(tree, kNever);
    session.LogOff(kNever);
  });
}

/// Nobody who does not know the key gets a success through.
void AskSigned(const smb::Bytes& answers) {
  MemoryStream stream(answers);
  smb::NetbiosSession transport(stream, false);
  smb::Exchange exchange(transport);
  exchange.StartSigning(smb::Dialect::k311, smb::Key{0x5E, 0xC2, 0xE7});
  Attempt([&] {
    const smb::Bytes request = smb::BuildEmpty(exchange.NextHeader(smb::Command::kLogOff));
    Require(exchange.Perform(request, kNever).header.status != 0);
  });
}

void ParseAll(const smb::Bytes& message) {
  Attempt([&] { smb::ParseHeader(message); });
  Attempt([&] {
    const smb::NegotiateReply reply = smb::ParseNegotiateReply(message);
    Require(smb::NameOf(reply.dialect) != std::string_view("unknown"));
  });
  Attempt([&] { Require(smb::ParseSessionSetupReply(message).token.size() <= message.size()); });
  Attempt([&] { smb::ParseTreeConnectReply(message); });
  Attempt([&] { smb::ParseEmptyReply(message); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const smb::Bytes rest(data + 1, data + size);
  switch (Kind{static_cast<uint8_t>(data[0] % static_cast<uint8_t>(Kind::kCount))}) {
    case Kind::kAnonymous:
      Climb(rest);
      break;
    case Kind::kSigned:
      AskSigned(rest);
      break;
    default:
      ParseAll(rest);
      break;
  }
  return 0;
}
