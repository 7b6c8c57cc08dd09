#include "agent/proxy/dialog_fields.h"

#include <charconv>
#include <optional>
#include <stdexcept>

using namespace proxy_protocol;

namespace {

// As `SkinDialog` numbers them.
constexpr ButtonId kFirstButton = 100;
constexpr ButtonId kSecondButton = 101;
constexpr ButtonId kCloseButton = 102;

[[noreturn]] void RefuseValue(const char* field) {
  throw std::runtime_error(std::string("the field ") + field + " has an unusable value");
}

// None for a field that is missing or empty.
std::optional<uint32_t> ReadNumber(const Message& request, const char* field) {
  const std::string* const found = request.Find(field);
  if (!found || found->empty()) return std::nullopt;
  const std::string& text = *found;
  uint32_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end) RefuseValue(field);
  return number;
}

std::string TextOr(const Message& request, const char* field, const std::string& word) {
  std::string text = ReadText(request, field, kMaxLineCharacters);
  return text.empty() ? word : text;
}

// Escape and the window's close control never grant what a person was asked for: they are the last
// button.
void AddButtons(const Message& request, const DialogWords& words, DialogContent* content) {
  switch (NeedNumber(request, "buttons")) {
    case 0:
      return;
    case 1:
      content->buttons = {{kCloseButton, TextOr(request, "closeButton", words.close)}};
      break;
    case 2:
      content->buttons = {{kFirstButton, TextOr(request, "firstButton", words.yes)},
                          {kSecondButton, TextOr(request, "secondButton", words.no)}};
      break;
    default:
      RefuseValue("buttons");
  }
  content->closeButton = content->buttons.back().id;
}

// No file has such a name, and none may be shown in its place.
std::string ReadPath(const Message& request, const char* field) {
  const std::string* const path = request.Find(field);
  return path && path->find('\0') == path->npos ? *path : std::string();
}

bool IsInsideCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// What is no UTF-8 counts by its bytes, at four to a character.
std::string Beginning(const std::string& text, size_t maxCharacters) {
  size_t characters = 0;
  size_t end = 0;
  for (; end < text.size(); ++end) {
    const bool isBegun = !IsInsideCharacter(text[end]);
    if (characters == maxCharacters && (isBegun || end >= maxCharacters * 4)) break;
    if (isBegun || end >= characters * 4) ++characters;
  }
  return end == text.size() ? text : text.substr(0, end) + "…";
}

}  // namespace

DialogContent DialogOf(const Message& request, const DialogWords& words) {
  DialogContent content;
  AddButtons(request, words, &content);
  content.title = TextOr(request, "title", words.title);
  content.text = ReadText(request, "text", kMaxTextCharacters);
  content.imagePath = ReadPath(request, "imagePath");
  content.timeoutS = ReadNumber(request, "timeoutS").value_or(0);
  content.staysOnTop = ReadFlag(request, "topMost");
  return content;
}

uint32_t NeedNumber(const Message& request, const char* field) {
  const std::optional<uint32_t> number = ReadNumber(request, field);
  if (!number) throw std::runtime_error(std::string("the field ") + field + " is missing");
  return *number;
}

bool ReadFlag(const Message& request, const char* field) {
  const uint32_t flag = ReadNumber(request, field).value_or(0);
  if (flag > 1) RefuseValue(field);
  return flag == 1;
}

std::string ReadText(const Message& request, const char* field, size_t maxCharacters) {
  const std::string* const text = request.Find(field);
  return text ? Beginning(*text, maxCharacters) : std::string();
}
