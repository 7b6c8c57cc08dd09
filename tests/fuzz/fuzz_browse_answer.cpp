// What the program that browses the network answers: a list of names none of which is empty, or one
// line that says why there is none. The first two bytes of the input are the program's status.

#include <sys/wait.h>

#include <cstdint>
#include <optional>
#include <string>

#include "agent/windows_api/browse_program.h"
#include "tests/fuzz/require.h"

namespace {

void Check(std::optional<int> status, const std::string& text) {
  const BrowseAnswer answer = ReadBrowseAnswer(status, text);
  const bool hasEnded = !status || (WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  if (answer.status != 0) {
    Require(answer.status == kMoreNames || answer.status == kNoSuchDomain ||
            answer.status == kNoBrowserFound);
    Require(answer.names.empty());
    return Require(answer.reason.Find("\n") == ZelString::kNotFound);
  }
  Require(hasEnded && answer.reason.IsEmpty());
  Require(!answer.names.empty() && answer.names.size() <= kMaxBrowseNames);
  // All of them, in their order.
  std::string again;
  for (const ZelString& name : answer.names) {
    Require(!name.IsEmpty());
    again.append(ZelString(name).Utf8()).push_back('\0');
  }
  if (ZelString::IsTextUTF8(text.data(), static_cast<uint32_t>(text.size())))
    Require(again == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
  // As the system tells it of a program that has ended: a signal's number, or a code.
  const int signal = data[0] % 65;
  Check(signal != 0 ? signal : W_EXITCODE(data[1], 0), text);
  Check(W_EXITCODE(0, 0), text);
  Check(std::nullopt, text);
  return 0;
}
