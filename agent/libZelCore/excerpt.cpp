#include "agent/libZelCore/excerpt.h"

std::string Excerpt(std::string_view text, size_t longest) {
  if (text.size() <= longest) return std::string(text);
  const auto isInsideCharacter = [&](size_t at) {
    return (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
  };
  size_t end = longest;
  while (end > 0 && isInsideCharacter(end)) --end;
  return std::string(text.substr(0, end)) + "...";
}
