#pragma once

#include <filesystem>
#include <string>

/// Agents log in to each other as this and their name.
constexpr const char* kAgentLoginPrefix = "agent/";

/// What TLS with other agents takes. Files are PEM.
class SslContext {
 public:
  /// The only authority that other agents' certificates are verified against.
  std::filesystem::path authorityFile;
  /// This agent's own certificate and key, shown to those who ask; may be empty.
  std::filesystem::path certificateFile;
  std::filesystem::path privateKeyFile;
};

/// What a proof of a request takes (see request_proof.h).
class PacContext {
 public:
  std::string agentName;
  std::string fleetSecret;
};
