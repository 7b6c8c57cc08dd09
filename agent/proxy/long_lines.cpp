#include "agent/proxy/long_lines.h"

namespace {

bool BeginsCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

}  // namespace

std::string WithBrokenLines(std::string_view text, const LineLimits& limits) {
  std::string broken;
  size_t lineBytes = 0;
  for (const char letter : text) {
    const bool endsLine = letter == '\n' || (letter == ' ' && lineBytes >= limits.atBlankBytes);
    if (!endsLine && lineBytes >= limits.anywhereBytes && BeginsCharacter(letter)) {
      broken += '\n';
      lineBytes = 0;
    }
    broken += endsLine ? '\n' : letter;
    lineBytes = endsLine ? 0 : lineBytes + 1;
  }
  return broken;
}
