#pragma once

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

// What tests need that look at a network nobody else is on. All of it is for root.

/// Runs `body` in a process of its own and returns what it returned; 99 when it threw, -1 when it
/// was killed.
inline int InChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    int result = 99;
    try {
      result = body();
    } catch (...) {
      // The result says so.
    }
    _exit(result);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline void Run(const std::string& command) {
  if (std::system(command.c_str()) != 0) throw std::runtime_error(command);
}

/// From now on this process has a network of its own, with a loopback interface.
inline void LeaveNetwork() {
  if (unshare(CLONE_NEWNET) != 0) throw std::runtime_error("no namespace");
  Run("ip link set lo up");
}

/// And in it the interface "near", 10.9.0.1/24 and fd00:9::1/64, at whose other end nobody is.
inline void MakeQuietInterface() {
  LeaveNetwork();
  Run("ip link add near type veth peer name far");
  Run("ip addr add 10.9.0.1/24 broadcast 10.9.0.255 dev near");
  Run("ip addr add fd00:9::1/64 dev near nodad");
  Run("ip link set near up && ip link set far up");
}
