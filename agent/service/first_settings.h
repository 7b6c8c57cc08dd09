#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

/// What an installation says about a new agent; what is empty keeps its default.
struct FirstSettings {
  std::string name = {};
  std::optional<uint16_t> port = {};
  std::string master = {};                     ///< HOST or HOST:PORT, an IPv6 address in brackets
  std::filesystem::path fleetSecretFile = {};  ///< copied into the home
  std::filesystem::path authorityFile = {};    ///< the fleet's authority, PEM; copied into the home
};

/// Writes the first config/zelagent.ini of a home, with the files it names. False, and nothing is
/// changed, when the home has one. Throws std::runtime_error with a sentence for the administrator
/// when a value cannot be used; the home is then without settings as before.
bool WriteFirstSettings(const std::filesystem::path& home, const FirstSettings& settings);
