#include "agent/translations/translation_file.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t\r";
constexpr size_t kMaxKeyLength = 128;
constexpr size_t kMaxTagLength = 35;
constexpr size_t kMaxComplaints = 20;

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool IsAsciiAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool IsKey(std::string_view key) {
  return !key.empty() && key.size() <= kMaxKeyLength &&
         std::all_of(key.begin(), key.end(), [](char c) {
           return IsAsciiAlphanumeric(c) || c == '_' || c == '.' || c == '-';
         });
}

/// How many bytes the character at the start of `text`, which is not empty, has: 0 when it is no
/// UTF-8, a surrogate or a control character.
size_t CharacterLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  unsigned code = first & (0xFFu >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3F);
  }
  constexpr unsigned kSmallest[] = {0, 0, 0xA0, 0x800, 0x10000};
  const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
  return code < kSmallest[length] || code > 0x10FFFF || isSurrogate ? 0 : length;
}

bool IsPlainText(std::string_view text) {
  while (!text.empty()) {
    const size_t length = text[0] == '\t' ? 1 : CharacterLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
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
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') return;
    if (const char* const error = ReadText(line)) Complain(error);
  }

 private:
  /// What is wrong with the line, or null.
  const char* ReadText(std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) return "not of the form KEY = text";
    const std::string_view key = Trim(line.substr(0, equals));
    const std::string_view text = Trim(line.substr(equals + 1));
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
  language = Trim(language);
  std::string tag(language.substr(0, std::min(language.find_first_of(".@"), language.size())));
  for (char& c : tag) {
    if (c == '_') c = '-';
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  const bool isTag = tag.size() >= 2 && tag.size() <= kMaxTagLength && tag != "posix" &&
                     IsAsciiAlphanumeric(tag.front()) && IsAsciiAlphanumeric(tag.back()) &&
                     tag.find("--") == std::string::npos &&
                     std::all_of(tag.begin(), tag.end(),
                                 [](char c) { return c == '-' || IsAsciiAlphanumeric(c); });
  return isTag ? tag : std::string();
}
