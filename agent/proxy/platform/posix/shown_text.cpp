#include "agent/proxy/platform/posix/shown_text.h"

#include <glib.h>

#include <cstdio>

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr std::string_view kPlaceOfTime = "{Time}";

void Append(std::string& text, gunichar character) {
  char buffer[6];
  const int length = ::g_unichar_to_utf8(character, buffer);
  text.append(buffer, static_cast<size_t>(length));
}

bool IsControl(gunichar character) {
  return character < 0x20 || (character >= 0x7F && character < 0xA0);
}

bool IsOverride(gunichar character) {
  return character == 0x202D || character == 0x202E;
}

void AppendShown(std::string& text, gunichar character) {
  const bool isLineSeparator = character == 0x2028 || character == 0x2029 || character == 0x85;
  if (isLineSeparator) {
    text += '\n';
  } else if (character == '\n' || character == '\t') {
    text += static_cast<char>(character);
  } else if (IsControl(character) || IsOverride(character)) {
    text += kReplacement;
  } else {
    Append(text, character);
  }
}

// Of what begins like a character and is none.
size_t InvalidLength(std::string_view rest) {
  const auto byte = [&](size_t at) { return static_cast<unsigned char>(rest[at]); };
  const bool isSurrogate = rest.size() >= 3 && byte(0) == 0xED && byte(1) >= 0xA0 &&
                           byte(1) <= 0xBF && byte(2) >= 0x80 && byte(2) <= 0xBF;
  return isSurrogate ? 3 : 1;
}

}  // namespace

std::string ShownText(std::string_view wtf8) {
  std::string shown;
  shown.reserve(wtf8.size());
  while (!wtf8.empty()) {
    if (wtf8.front() == '\0' || wtf8.front() == '\r') {
      const bool isPair = wtf8.substr(0, 2) == "\r\n";
      if (!isPair) shown += wtf8.front() == '\0' ? kReplacement : "\n";
      wtf8.remove_prefix(1);
      continue;
    }

    const gunichar character =
        ::g_utf8_get_char_validated(wtf8.data(), static_cast<gssize>(wtf8.size()));
    const bool isValid = character < 0x110000;
    if (isValid) {
      AppendShown(shown, character);
      wtf8.remove_prefix(static_cast<size_t>(::g_unichar_to_utf8(character, nullptr)));
    } else {
      shown += kReplacement;
      wtf8.remove_prefix(InvalidLength(wtf8));
    }
  }
  return shown;
}

std::string ShownLine(std::string_view wtf8) {
  std::string line = ShownText(wtf8);
  for (char& character : line) {
    if (character == '\n' || character == '\t') character = ' ';
  }
  return line;
}

std::string ShownTimeLeft(std::string_view words, long long seconds) {
  char time[64];
  const long long hours = seconds / 3600;
  const int minutes = static_cast<int>(seconds / 60 % 60);
  const int rest = static_cast<int>(seconds % 60);
  if (hours > 0) {
    std::snprintf(time, sizeof time, "%lld:%02d:%02d", hours, minutes, rest);
  } else {
    std::snprintf(time, sizeof time, "%d:%02d", minutes, rest);
  }

  const size_t place = words.find(kPlaceOfTime);
  if (place == std::string_view::npos) return ShownLine(words) + " " + time;
  return ShownLine(words.substr(0, place)) + time +
         ShownLine(words.substr(place + kPlaceOfTime.size()));
}
