#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

/// The exit status of an agent that does not start because of its installation.
inline constexpr int kUnsafeInstallationStatus = 78;

/// Somebody without an administrator's rights could make the agent do something else.
class UnsafeInstallation : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Where an agent's files are.
struct Installation {
  std::filesystem::path programs;  ///< what stands here is executed and loaded
  std::filesystem::path modules;
  std::filesystem::path home;
};

/// What ordinary users could change of what the agent executes, loads or takes for an order, and
/// which secrets they could read: a sentence for each path, which it names, eight at most. Empty
/// when this process has no more rights than they.
std::vector<std::string> InstallationProblems(const Installation& installation);

/// Makes the home's directories that are missing and throws UnsafeInstallation with these sentences
/// when there are any. Throws std::runtime_error when a directory cannot be made.
void CheckInstallation(const Installation& installation);
