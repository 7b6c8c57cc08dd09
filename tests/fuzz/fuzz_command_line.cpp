// Command lines, which users and other agents send: arguments that are joined are taken apart as
// they were, quotes never add a character, and a process's number is one that C would read. Each
// line of the input is an argument.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZel/command_line.h"
#include "agent/zelctl/command_line_text.h"
#include "tests/fuzz/require.h"

namespace {

std::vector<std::string> LinesOf(std::string_view input) {
  std::vector<std::string> lines;
  for (;;) {
    const size_t end = std::min(input.find('\n'), input.size());
    lines.emplace_back(input.substr(0, end));
    if (end == input.size()) return lines;
    input.remove_prefix(end + 1);
  }
}

// A program's name cannot hold quotes; in any other place an argument can hold anything.
void CheckJoined(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "program");
  Require(SplitCommandLine(JoinArguments(arguments)) == arguments);
}

void CheckAny(std::string_view line) {
  const std::vector<std::string> arguments = SplitCommandLine(line);
  Require(!arguments.empty());
  size_t characters = 0;
  for (const std::string& argument : arguments) characters += argument.size();
  Require(characters + arguments.size() - 1 <= line.size());
}

void CheckNumber(const std::string& text) {
  const auto id = ParseProcessId(text);
  if (!id) return;
  errno = 0;
  char* end = nullptr;
  const unsigned long long number = std::strtoull(text.c_str(), &end, 0);
  Require(*id > 0 && errno == 0 && number == *id && end == text.c_str() + text.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string> lines = LinesOf(input);
  CheckJoined(lines);
  CheckAny(input);
  CheckNumber(lines.front());
  return 0;
}
