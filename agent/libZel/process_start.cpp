#include "agent/libZel/process_start.h"

#include "agent/libZel/boundary.h"
#include "agent/libZel/command_line.h"
#include "agent/libZel/program_launch.h"

namespace {

Outcome Start(const ZelString& commandLine) {
  if (commandLine.Utf8().find('\0') != std::string_view::npos) {
    return FailedBecause("the command line holds a NUL character");
  }
  const std::vector<std::string> arguments = SplitCommandLine(commandLine.Utf8());
  if (arguments[0].empty()) return FailedBecause("the command line names no program");
  return LaunchProgram(commandLine, arguments);
}

}  // namespace

Outcome StartProgram(const ZelString& commandLine) {
  try {
    return Start(commandLine);
  } catch (const std::exception& error) {
    return Guarded("starting a program", Outcome{-1, {}},
                   [&] { return FailedBecause(error.what()); });
  }
}
