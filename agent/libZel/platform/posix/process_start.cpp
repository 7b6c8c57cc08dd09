#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZel/native_path.h"
#include "agent/libZel/path_parts.h"
#include "agent/libZel/platform/posix/byte_names.h"
#include "agent/libZel/platform/posix/child_reaper.h"
#include "agent/libZel/platform/posix/forked_program.h"
#include "agent/libZel/program_launch.h"

namespace {

// Where the system looks for programs that are named without a directory.
std::vector<std::string> SearchPath() {
  const char* const path = ::getenv("PATH");
  std::string_view rest = path != nullptr ? path : "/bin:/usr/bin";
  std::vector<std::string> directories;
  for (;;) {
    const size_t end = rest.find(':');
    directories.emplace_back(rest.substr(0, end));
    if (end == std::string_view::npos) return directories;
    rest.remove_prefix(end + 1);
  }
}

// The files that may be the program of this name.
std::vector<std::string> CandidatesFor(const std::string& name) {
  std::vector<std::string> files;
  for (const std::string& directory : SearchPath())
    files.push_back(directory.empty() ? name : directory + "/" + name);
  return files;
}

class FirstProgram : public ProgramToBe {
 public:
  FirstProgram(const std::vector<std::string>& files, std::vector<std::string>& arguments)
      : files_(files), arguments_(PointersTo(arguments)) {}

  void Run() const override {
    int reason = ENOENT;
    for (const std::string& file : files_) {
      ::execve(file.c_str(), arguments_.data(), environ);
      // Another directory may have one that can be run.
      if (errno == EACCES) reason = EACCES;
      if (errno != EACCES && errno != ENOENT && errno != ENOTDIR) return;
    }
    errno = reason;
  }

 private:
  const std::vector<std::string>& files_;
  const std::vector<char*> arguments_;
};

bool NamesDirectory(const std::string& program) {
  return program.find_first_of("/\\") != std::string::npos || DriveLength(program) > 0;
}

Outcome WhyNot(const std::string& program, int error) {
  std::error_code ignored;
  if (error == EACCES && std::filesystem::is_directory(program, ignored)) error = EISDIR;
  Outcome outcome = OutcomeOf(error);
  outcome.reason = TextOfBytes(program) + ": " + outcome.reason;
  return outcome;
}

}  // namespace

Outcome LaunchProgram(const ZelString& /*commandLine*/, const std::vector<std::string>& arguments) {
  std::vector<std::string> bytes;
  for (const std::string& argument : arguments) {
    const std::optional<std::string> one = BytesOf(argument);
    if (!one) return FailedBecause("the command line holds a surrogate that stands for no byte");
    bytes.push_back(*one);
  }
  const bool isPath = NamesDirectory(arguments[0]);
  if (isPath) {
    const NativePath path = ToNativePath(arguments[0]);
    if (!path) return FailedBecause(path.error);
    bytes[0] = path.path;
  }
  const std::vector<std::string> files = isPath ? std::vector{bytes[0]} : CandidatesFor(bytes[0]);
  const FirstProgram program(files, bytes);

  // First of all: nothing may fail any more once the program runs.
  ChildReaper& reaper = ChildReaper::Instance();
  const ForkedProgram forked = ForkProgram(program);
  if (forked.process == 0) return WhyNot(bytes[0], forked.error);
  const int error = ReadFailure(forked.failure);
  reaper.Watch(forked.process);
  return error == 0 ? Outcome() : WhyNot(bytes[0], error);
}
