// Files of texts: whatever is taken has a key and a text, and comes back from a file that is
// written from it.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "agent/translations/translation_file.h"
#include "tests/fuzz/require.h"

namespace {

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\') escaped += "\\\\";
    if (c == '\n') escaped += "\\n";
    if (c != '\\' && c != '\n') escaped += c;
  }
  return escaped;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  TranslationTexts texts;
  size_t complaints = 0;
  ReadTranslationFile(input, &texts, [&](const std::string&) { ++complaints; });
  Require(complaints <= 20);

  std::string written;
  for (const auto& [key, text] : texts) {
    Require(!key.empty() && !text.empty());
    written += key + "=" + Escaped(text) + "\n";
  }
  TranslationTexts again;
  ReadTranslationFile(written, &again, [](const std::string&) { std::abort(); });
  Require(again == texts);

  const std::string tag = NormalLanguageTag(input);
  Require(NormalLanguageTag(tag) == tag);
  return 0;
}
