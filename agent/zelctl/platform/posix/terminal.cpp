#include "agent/zelctl/terminal.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

namespace {

constexpr char kInterruptKey = '\x03';

/// Keeps the echo off while it lives. Ctrl-C arrives as a character that ends the line meanwhile,
/// so that no terminal is left without echo.
class EchoOff {
 public:
  EchoOff() {
    tcgetattr(STDIN_FILENO, &before_);
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
    silent.c_lflag |= ECHONL;
    silent.c_cc[VEOL] = kInterruptKey;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  }
  ~EchoOff() { tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_); }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  termios before_{};
};

}  // namespace

std::vector<std::string> ProgramArguments(int argc, char** argv) {
  return {argv + (argc > 0 ? 1 : 0), argv + argc};
}

std::filesystem::path LocalPath(const std::string& argument) {
  return argument;
}

void PrepareStreams() {}

bool IsInputTerminal() {
  return isatty(STDIN_FILENO) != 0;
}

bool IsOutputTerminal() {
  return isatty(STDOUT_FILENO) != 0;
}

bool IsErrorTerminal() {
  return isatty(STDERR_FILENO) != 0;
}

std::string PromptPassword(const std::string& question) {
  std::fputs(question.c_str(), stderr);
  const EchoOff silent;
  // One call reads one line of a terminal, which is at most this long.
  char line[4096];
  const ssize_t length = read(STDIN_FILENO, line, sizeof line);
  std::string password(line, length > 0 ? static_cast<size_t>(length) : 0);
  if (password.ends_with(kInterruptKey)) throw std::runtime_error("interrupted");
  if (password.ends_with('\n')) password.pop_back();
  if (password.empty()) throw std::runtime_error("no password was given");
  return password;
}
