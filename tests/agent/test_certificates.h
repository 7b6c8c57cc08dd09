#pragma once

#include <filesystem>
#include <string>

/// A certificate authority made for one test, and what it signs (EC P-256, valid from yesterday to
/// tomorrow).
class TestAuthority {
 public:
  explicit TestAuthority(const std::string& name);
  ~TestAuthority();
  TestAuthority(const TestAuthority&) = delete;
  TestAuthority& operator=(const TestAuthority&) = delete;

  void WriteCertificate(const std::filesystem::path& file) const;
  /// `alternativeName`: "IP:127.0.0.1", "DNS:name". An expired one was valid until an hour ago.
  void Issue(const std::string& alternativeName, const std::filesystem::path& certificateFile,
             const std::filesystem::path& keyFile, bool isExpired = false) const;

 private:
  struct Implementation;
  Implementation* implementation_;
};
