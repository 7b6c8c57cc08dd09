#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZelCore/settings.h"

// The keys of the configuration file that stand for one value each, and what values they take.

/// Where a value goes.
struct SettingsTarget {
  Settings& settings;
  const std::filesystem::path& directory;  ///< what relative file names start from
  std::vector<std::string>& warnings;
};

struct SettingsKey {
  /// Takes a value over; returns what is wrong with it, or nothing.
  using Setter = std::function<std::string(SettingsTarget&, const std::string& value)>;

  const char* section;
  const char* name;
  Setter set;
};

/// All of them, by section.
const std::vector<SettingsKey>& SettingsKeys();

/// The longest name of an agent.
constexpr size_t kMaxAgentNameLength = 64;
