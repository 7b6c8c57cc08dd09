#include "agent/task_database/store_text.h"

#include <algorithm>

#include "agent/task_database/task_store.h"
#include "libZel/string.h"

bool IsStorable(std::string_view text) {
  if (text.size() > UINT32_MAX) return false;
  return text.find('\0') == std::string_view::npos &&
         ZelString::IsTextUTF8(text.data(), static_cast<uint32_t>(text.size()));
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
