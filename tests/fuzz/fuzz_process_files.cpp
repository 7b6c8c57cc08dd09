// What the files below /proc say of other users' processes, whose names and environments are
// theirs to choose: a name cannot pass for a number behind it, and no more of an environment is
// taken than what tells of a desktop and a language.

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZel/platform/posix/process_files.h"
#include "agent/libZelCore/platform/posix/session_environment.h"
#include "tests/fuzz/require.h"

namespace {

bool LiesIn(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

// As the kernel writes the line, with a command of any name.
void CheckCommand(std::string_view name) {
  const std::string line = "42 (" + std::string(name) +
                           ") S 7 42 42 0 -1 4194560 1 2 3 4 10 20 30 40 20 0 5 0 99 4096 3 18446";
  const ProcessStat stat = ParseProcessStat(line);
  Require(stat.command == name && stat.parentId == 7 && !stat.isKernelThread);
  Require(stat.cpuTicks == 30 && stat.threadCount == 5 && stat.startTicks == 99);
  Require(stat.virtualBytes == 4096 && stat.residentPages == 3);
}

void CheckEnvironment(std::string_view bytes) {
  const SessionVariables variables = ReadSessionVariables(bytes);
  for (const auto& [name, value] : variables) {
    Require(!name.empty() && value.size() < 4096);
    Require(name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_") == std::string::npos);
    Require(!name.starts_with("LD_") && name != "PATH" && name != "HOME");
    Require((name + value).find('\0') == std::string::npos);
    const std::string line = name + "=" + value + std::string(1, '\0');
    Require(bytes.find(line) != std::string_view::npos);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  Require(LiesIn(ParseProcessStat(bytes).command, bytes));
  CheckCommand(bytes);
  const std::string_view executable = ExecutableOf(bytes);
  Require(LiesIn(executable, bytes) && bytes.starts_with(executable));
  ThreadGroupOf(bytes);
  Require(ThreadGroupOf("Name:\t" + std::string(bytes.substr(0, bytes.find('\n'))) +
                        "\nTgid:\t4711\n") == 4711);
  CheckEnvironment(bytes);
  return 0;
}
