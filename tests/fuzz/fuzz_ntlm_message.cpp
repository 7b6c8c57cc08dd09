// Messages of NTLM, from a file server and from what logs in for the agent: parts that are handed
// out lie inside of the message, and what is refused is refused with a sentence.

#include <cstdint>
#include <initializer_list>
#include <span>
#include <stdexcept>
#include <vector>

#include "agent/libZel/smb/ntlm_message.h"
#include "tests/fuzz/require.h"

namespace {

using Bytes = std::span<const uint8_t>;

bool LiesIn(Bytes part, Bytes whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

bool CheckChallenge(Bytes message) {
  try {
    smb::CheckNtlmChallenge(message);
  } catch (const std::runtime_error& error) {
    Require(error.what()[0] != '\0');
    return false;
  }
  smb::NtlmChallengeFlags(message);
  return true;
}

bool CheckAnswer(Bytes message) {
  const bool isAnswer = smb::IsNtlmVersion2Answer(message);
  try {
    const smb::NtlmAnswer answer = smb::ReadNtlmAnswer(message);
    Require(isAnswer && !answer.response.empty());
    for (const Bytes part : {answer.response, answer.domain, answer.user, answer.sessionKey})
      Require(LiesIn(part, message));
    return true;
  } catch (const std::runtime_error& error) {
    Require(error.what()[0] != '\0');
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> message(data, data + size);
  const bool isChallenge = CheckChallenge(message);
  const bool isAnswer = CheckAnswer(message);
  Require(!isChallenge || !isAnswer);
  return 0;
}
