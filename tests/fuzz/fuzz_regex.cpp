// Regular expressions: any pattern on any text, within the bounds of a call. A line of the input is
// the pattern, the next one what matches are replaced by, the rest the text. Both are short: what a
// search may cost at most is a second, and such searches would be all that is done here.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "libZel/regex.h"
#include "tests/fuzz/require.h"

namespace {

constexpr size_t kLongestPattern = 48;
constexpr size_t kLongestText = 20;

std::string_view TakeLine(std::string_view* input, size_t longest) {
  const size_t end = std::min(input->find('\n'), input->size());
  const std::string_view line = input->substr(0, std::min(end, longest));
  input->remove_prefix(std::min(end + 1, input->size()));
  return line;
}

// Whether no byte stands alone in it: one that a match has torn out of its character is kept as a
// surrogate of its own, which the text itself does not hold.
bool IsWhole(std::string_view capture) {
  return capture.find("\xED\xB2") == std::string_view::npos &&
         capture.find("\xED\xB3") == std::string_view::npos;
}

void CheckCaptures(const ZelString& text, const ZelString& pattern) {
  ZelVector<ZelString> captures;
  captures.push_back("left over");
  const int found = FindPcre(text, pattern, captures, 0, 0, 0);
  Require(found == 0 || found == 1);
  Require((found == 1) == MatchRegex(text, pattern, 0));
  if (found == 0) return Require(captures.size() == 0);
  for (const ZelString& capture : captures) {
    if (IsWhole(capture.Utf8()))
      Require(text.Utf8().find(capture.Utf8()) != std::string_view::npos);
  }
  Require(FindPcre(text, pattern, captures, -1, 0, 0) == 0);
  Require(FindPcre(text, pattern, captures, static_cast<int>(text.GetLength()) + 1, 0, 0) == 0);
}

void CheckReplacement(const ZelString& text, const ZelString& pattern,
                      const ZelString& replacement) {
  ZelString replaced = text;
  const int count = PcreReplace(&replaced, pattern, replacement, 0);
  // At each place there may be an empty match, and another one that takes it with it.
  Require(count >= 0 && static_cast<size_t>(count) <= 2 * text.GetLength() + 1);
  if (count == 0) return Require(replaced == text);
  Require(MatchRegex(text, pattern, 0));
  // A byte that is torn out of a character leaves others, which take three each from then on.
  const size_t longest = text.GetLength() + static_cast<size_t>(count) * replacement.GetLength();
  Require(replaced.GetLength() <= 3 * longest);
}

// A pattern of plain characters finds what a plain search finds.
void CheckPlain(const ZelString& text, std::string_view plain) {
  const bool isPlain = std::all_of(plain.begin(), plain.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ' ' || c == '/' || c == '_';
  });
  if (!isPlain) return;
  const bool isFound = text.Utf8().find(plain) != std::string_view::npos;
  Require(MatchRegex(text, ZelString(plain), 0) == isFound);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string_view pattern = TakeLine(&input, kLongestPattern);
  const ZelString replacement(TakeLine(&input, kLongestPattern));
  const ZelString text(input.substr(0, kLongestText));
  CheckCaptures(text, ZelString(pattern));
  CheckReplacement(text, ZelString(pattern), replacement);
  CheckPlain(text, ZelString(pattern).Utf8());
  return 0;
}
