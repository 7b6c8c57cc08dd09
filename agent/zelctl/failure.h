#pragma once

#include <stdexcept>
#include <string>
#include <utility>

/// Exit statuses of zelctl.
enum class ExitStatus {
  kSuccess = 0,       ///< the action returned 0
  kActionFailed = 1,  ///< the action returned something else
  kUsage = 2,         ///< the command line, or what it asked for, makes no sense
  kAgentRefused = 3,  ///< the agent could not be reached or refused the credentials
};

/// Why a command ended without success: a sentence for the user's eyes, and the exit status.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& message, std::string reply = {})
      : std::runtime_error(message), status_(status), reply_(std::move(reply)) {}

  ExitStatus Status() const { return status_; }
  /// The body of the agent's reply that decided, when there was one.
  const std::string& Reply() const { return reply_; }

 private:
  ExitStatus status_;
  std::string reply_;
};
