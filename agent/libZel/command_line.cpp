#include "agent/libZel/command_line.h"

#include <algorithm>

namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

class Splitter {
 public:
  explicit Splitter(std::string_view line) : rest_(line) {}

  std::string Program() {
    std::string program;
    bool isQuoted = false;
    for (; !rest_.empty() && (isQuoted || !IsBlank(rest_[0])); rest_.remove_prefix(1)) {
      if (rest_[0] == '"') {
        isQuoted = !isQuoted;
      } else {
        program.push_back(rest_[0]);
      }
    }
    return program;
  }

  bool SkipBlanks() {
    while (!rest_.empty() && IsBlank(rest_[0])) rest_.remove_prefix(1);
    return !rest_.empty();
  }

  std::string Argument() {
    std::string argument;
    bool isQuoted = false;
    while (!rest_.empty() && (isQuoted || !IsBlank(rest_[0]))) {
      if (TakeBackslashes(&argument)) continue;
      if (rest_[0] != '"') {
        argument.push_back(rest_[0]);
      } else if (isQuoted && rest_.starts_with("\"\"")) {
        argument.push_back('"');
        rest_.remove_prefix(1);
      } else {
        isQuoted = !isQuoted;
      }
      rest_.remove_prefix(1);
    }
    return argument;
  }

 private:
  // Takes a run of backslashes and, where they escape one, the quote behind them.
  bool TakeBackslashes(std::string* argument) {
    const size_t count = std::min(rest_.find_first_not_of('\\'), rest_.size());
    if (count == 0) return false;
    rest_.remove_prefix(count);
    if (!rest_.starts_with('"')) {
      argument->append(count, '\\');
      return true;
    }
    argument->append(count / 2, '\\');
    if (count % 2 == 1) {
      argument->push_back('"');
      rest_.remove_prefix(1);
    }
    return true;
  }

  std::string_view rest_;
};

}  // namespace

std::vector<std::string> SplitCommandLine(std::string_view line) {
  Splitter splitter(line);
  std::vector<std::string> arguments{splitter.Program()};
  while (splitter.SkipBlanks()) arguments.push_back(splitter.Argument());
  return arguments;
}
