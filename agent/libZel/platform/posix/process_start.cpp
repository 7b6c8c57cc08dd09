#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <new>
#include <optional>
#include <string>

#include "agent/libZel/native_path.h"
#include "agent/libZel/path_parts.h"
#include "agent/libZel/platform/posix/byte_names.h"
#include "agent/libZel/platform/posix/child_reaper.h"
#include "agent/libZel/program_launch.h"

namespace {

void Require(int error) {
  if (error != 0) throw std::bad_alloc();
}

// The program's streams are empty and nothing else is open in it.
class Streams {
 public:
  Streams() {
    Require(::posix_spawn_file_actions_init(&actions_));
    Open(STDIN_FILENO, O_RDONLY);
    Open(STDOUT_FILENO, O_WRONLY);
    Open(STDERR_FILENO, O_WRONLY);
    Require(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
  }
  ~Streams() { ::posix_spawn_file_actions_destroy(&actions_); }
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  const posix_spawn_file_actions_t* Get() const { return &actions_; }

 private:
  void Open(int descriptor, int flags) {
    Require(::posix_spawn_file_actions_addopen(&actions_, descriptor, "/dev/null", flags, 0));
  }

  posix_spawn_file_actions_t actions_;
};

// A session of its own, and signals as a program expects them: this process blocks some.
class Attributes {
 public:
  Attributes() {
    Require(::posix_spawnattr_init(&attributes_));
    sigset_t signals;
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    ::sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::posix_spawnattr_setflags(&attributes_,
                               POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~Attributes() { ::posix_spawnattr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  const posix_spawnattr_t* Get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
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
  std::vector<char*> pointers;
  for (std::string& argument : bytes) pointers.push_back(argument.data());
  pointers.push_back(nullptr);

  // First of all: nothing may fail any more once the program runs.
  ChildReaper& reaper = ChildReaper::Instance();
  const Streams streams;
  const Attributes attributes;
  pid_t child = -1;
  const auto start = isPath ? ::posix_spawn : ::posix_spawnp;
  const int error =
      start(&child, bytes[0].c_str(), streams.Get(), attributes.Get(), pointers.data(), environ);
  if (error != 0) return WhyNot(bytes[0], error);
  reaper.Watch(child);
  return {};
}
