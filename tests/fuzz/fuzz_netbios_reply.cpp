// What a server sends in a NetBIOS session: a grant or none, then messages, each with the length
// that stands before it.

#include <cstdint>
#include <stdexcept>

#include "agent/libZel/smb/netbios_session.h"
#include "tests/agent/memory_stream.h"
#include "tests/fuzz/require.h"

namespace {

/// All messages up to the first failure.
void ReadAll(const smb::Bytes& answers, bool isDirect) {
  MemoryStream stream(answers);
  smb::NetbiosSession session(stream, isDirect);
  try {
    if (!isDirect) session.Request("*SMBSERVER", Deadline::max());
    for (;;) {
      const smb::Bytes message = session.Receive(Deadline::max());
      Require(!message.empty() && message.size() <= smb::NetbiosSession::kMaxMessageBytes);
      Require(message.size() + 4 <= answers.size());
    }
  } catch (const std::runtime_error& error) {
    Require(error.what()[0] != '\0');
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const smb::Bytes answers(data, data + size);
  ReadAll(answers, false);
  ReadAll(answers, true);
  return 0;
}
