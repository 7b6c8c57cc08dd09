#include "agent/zelctl/command_line_text.h"

#include <charconv>
#include <cstddef>
#include <system_error>

namespace {

/// Backslashes count only before a double quote: there each stands for half a one.
std::string Quote(const std::string& argument) {
  std::string quoted = "\"";
  size_t backslashes = 0;
  for (const char c : argument) {
    if (c == '"') quoted.append(backslashes + 1, '\\');
    backslashes = c == '\\' ? backslashes + 1 : 0;
    quoted += c;
  }
  // The closing quote must stay one.
  return quoted.append(backslashes, '\\') + "\"";
}

}  // namespace

std::string JoinArguments(const std::vector<std::string>& arguments) {
  std::string line;
  for (const std::string& argument : arguments) {
    const bool isPlain = !argument.empty() && argument.find_first_of(" \t\n\v\"") == argument.npos;
    if (!line.empty()) line += ' ';
    line += isPlain ? argument : Quote(argument);
  }
  return line;
}

std::optional<uint32_t> ParseProcessId(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  } else if (text.size() > 1 && text.starts_with('0')) {
    base = 8;
  }
  uint32_t id = 0;
  const char* const end = text.data() + text.size();
  const std::from_chars_result parsed = std::from_chars(text.data(), end, id, base);
  if (parsed.ec != std::errc() || parsed.ptr != end || id == 0) return std::nullopt;
  return id;
}
