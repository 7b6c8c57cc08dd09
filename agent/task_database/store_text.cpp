#include "agent/task_database/store_text.h"

#include "agent/task_database/task_store.h"

namespace {

bool IsContinuation(std::string_view text, size_t at) {
  return at < text.size() && (static_cast<uint8_t>(text[at]) & 0xC0) == 0x80;
}

/// The bytes of the character that begins at `at`; 0 when there is none.
size_t CharacterLength(std::string_view text, size_t at) {
  const auto first = static_cast<uint8_t>(text[at]);
  if (first == 0) return 0;
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4 || !IsContinuation(text, at + 1)) return 0;
  const auto second = static_cast<uint8_t>(text[at + 1]);
  if (first < 0xE0) return 2;
  if (!IsContinuation(text, at + 2)) return 0;
  // Longer forms than needed, and surrogates.
  if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F)) return 0;
  if (first < 0xF0) return 3;
  if ((first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F)) return 0;
  return IsContinuation(text, at + 3) ? 4 : 0;
}

}  // namespace

bool IsStorable(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = CharacterLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

void RequireStorable(std::string_view text, const char* field) {
  if (IsStorable(text)) return;
  throw StoreError(std::string("the ") + field + " cannot be stored: it is not valid Unicode text");
}

int32_t TextKey(std::string_view text) {
  uint32_t hash = 2166136261u;  // FNV-1a
  for (const char byte : text) hash = (hash ^ static_cast<uint8_t>(byte)) * 16777619u;
  return static_cast<int32_t>(hash);
}

std::string OneLine(std::string_view message) {
  constexpr std::string_view kBlanks = " \t\r\n";
  std::string line;
  while (true) {
    const size_t begin = message.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return line;
    message.remove_prefix(begin);
    const size_t end = std::min(message.find('\n'), message.size());
    if (!line.empty()) line += "; ";
    line += message.substr(0, message.find_last_not_of(kBlanks, end - 1) + 1);
    message.remove_prefix(end);
  }
}
