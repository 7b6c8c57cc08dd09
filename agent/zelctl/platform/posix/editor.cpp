#include "agent/zelctl/editor.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace {

constexpr char kUsualEditor[] = "vi";

/// Ctrl-C is the editor's while it lives.
class KeysIgnored {
 public:
  KeysIgnored() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &interrupt_);
    sigaction(SIGQUIT, &ignore, &quit_);
  }
  ~KeysIgnored() {
    sigaction(SIGINT, &interrupt_, nullptr);
    sigaction(SIGQUIT, &quit_, nullptr);
  }
  KeysIgnored(const KeysIgnored&) = delete;
  KeysIgnored& operator=(const KeysIgnored&) = delete;

 private:
  struct sigaction interrupt_ {};
  struct sigaction quit_ {};
};

/// Has the child hear Ctrl-C again, which it would inherit as ignored.
class SpawnAttributes {
 public:
  SpawnAttributes() {
    sigset_t keys;
    sigemptyset(&keys);
    sigaddset(&keys, SIGINT);
    sigaddset(&keys, SIGQUIT);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setsigdefault(&attributes_, &keys);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  const posix_spawnattr_t* Get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

int WaitFor(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "the editor");
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::string EditorCommand() {
  for (const char* const name : {"VISUAL", "EDITOR"}) {
    const char* const command = std::getenv(name);
    if (command != nullptr && *command != '\0') return command;
  }
  return kUsualEditor;
}

std::filesystem::path CreatePrivateFile(const std::string& extension) {
  std::string name =
      (std::filesystem::temp_directory_path() / ("zelctl-XXXXXX" + extension)).string();
  // Made for the owner alone.
  const int file = mkostemps(name.data(), static_cast<int>(extension.size()), O_CLOEXEC);
  if (file < 0) throw std::system_error(errno, std::generic_category(), name);
  close(file);
  return name;
}

int RunEditor(const std::string& command, const std::filesystem::path& file) {
  // The command may have arguments of its own, which the shell takes apart.
  std::string shell = "sh";
  std::string option = "-c";
  std::string line = command + " \"$@\"";
  std::string name = command;
  std::string argument = file.string();
  char* const arguments[] = {shell.data(), option.data(),   line.data(),
                             name.data(),  argument.data(), nullptr};

  const KeysIgnored ignored;
  const SpawnAttributes attributes;
  pid_t child = 0;
  const int error = posix_spawn(&child, "/bin/sh", nullptr, attributes.Get(), arguments, environ);
  if (error != 0) throw std::system_error(error, std::generic_category(), "the editor");
  return WaitFor(child);
}
