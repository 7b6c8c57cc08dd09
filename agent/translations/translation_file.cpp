#include "agent/translations/translation_file.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <set>
#include <utility>

#include "agent/libZel/ascii.h"
#include "agent/libZel/blanks.h"
#include "libZel/string.h"

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t\r";
constexpr size_t kMaxKeyLength = 128;
constexpr size_t kMaxTagLength = 35;
constexpr size_t kMaxComplaints = 20;

bool IsKey(std::string_view key) {
  return !key.empty() && key.size() <= kMaxKeyLength &&
         std::all_of(key.begin(), key.end(), IsAsciiNameCharacter);
}

/// Whether it is UTF-8 without control characters other than tabs.
bool IsPlainText(std::string_view text) {
  if (!ZelString::IsTextUTF8(text.data(), static_cast<uint32_t>(text.size()))) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte < 0x20 && byte != '\t') || byte == 0x7F) return false;
    // U+0080 to U+009F.
    if (byte == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0) return false;
  }
  return true;
}

/// None for a backslash before something else than "n" and another one.
std::optional<std::string> Unescaped(std::string_view text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      result += text[i];
      continue;
    }
    const char next = ++i < text.size() ? text[i] : '\0';
    if (next != 'n' && next != '\\') return {};
    result += next == 'n' ? '\n' : '\\';
  }
  return result;
}

class FileReader {
 public:
  FileReader(TranslationTexts* texts, const std::function<void(const std::string&)>& complain)
      : texts_(texts), complain_(complain) {}

  void ReadLine(std::string_view line) {
    ++line_;
    line = TrimBlanks(line, kBlanks);
    if (line.empty() || line[0] == '#' || line[0] == ';') return;
    if (const char* const error = ReadText(line)) Complain(error);
  }

 private:
  /// What is wrong with the line, or null.
  const char* ReadText(std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) return "not of the form KEY = text";
    const std::string_view key = TrimBlanks(line.substr(0, equals), kBlanks);
    const std::string_view text = TrimBlanks(line.substr(equals + 1), kBlanks);
    if (!IsKey(key)) return "no key of 1 to 128 letters, digits, \"_\", \"-\" and \".\"";
    if (text.empty()) return "the key has no text";
    if (!IsPlainText(text)) return "the text is not UTF-8 without control characters";
    std::optional<std::string> unescaped = Unescaped(text);
    if (!unescaped) return "a backslash stands before \"n\" or another one";
    if (!seen_.emplace(key).second) return "the key stands in an earlier line";
    texts_->insert_or_assign(std::string(key), *std::move(unescaped));
    return nullptr;
  }

  void Complain(const char* error) {
    if (++complaints_ > kMaxComplaints) return;
    complain_("line " + std::to_string(line_) + ": " + error);
  }

  TranslationTexts* const texts_;
  const std::function<void(const std::string&)>& complain_;
  std::set<std::string, std::less<>> seen_;
  size_t line_ = 0;
  size_t complaints_ = 0;
};

}  // namespace

void ReadTranslationFile(std::string_view content, TranslationTexts* texts,
                         const std::function<void(const std::string&)>& complain) {
  if (content.starts_with(kByteOrderMark)) content.remove_prefix(kByteOrderMark.size());
  FileReader reader(texts, complain);
  while (!content.empty()) {
    const size_t end = content.find('\n');
    reader.ReadLine(content.substr(0, end));
    content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
  }
}

std::string NormalLanguageTag(std::string_view language) {
  language = TrimBlanks(language, kBlanks);
  std::string tag(language.substr(0, std::min(language.find_first_of(".@"), language.size())));
  for (char& c : tag) {
    c = c == '_' ? '-' : AsciiLower(c);
  }
  const bool isTag = tag.size() >= 2 && tag.size() <= kMaxTagLength && tag != "posix" &&
                     IsAsciiAlphanumeric(tag.front()) && IsAsciiAlphanumeric(tag.back()) &&
                     tag.find("--") == std::string::npos &&
                     std::all_of(tag.begin(), tag.end(),
                                 [](char c) { return c == '-' || IsAsciiAlphanumeric(c); });
  return isTag ? tag : std::string();
}
