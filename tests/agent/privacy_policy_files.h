#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "agent/libZelCore/privacy_policy.h"
#include "tests/agent/temporary_directory.h"

inline std::optional<std::string> RoleOf(std::string_view login) {
  if (login == "root") return "administrator";
  if (login == "helen") return "helpdesk";
  return {};
}

inline PrivacyRule Rule(std::string login, std::string pattern, bool mayRead, bool mayWrite) {
  return {std::move(login), std::move(pattern), mayRead, mayWrite};
}

/// A directory "data" that bob may do everything in, and "data/secret" that he may not.
class PrivacyPolicyFiles : public testing::Test {
 protected:
  PrivacyPolicyFiles()
      : policy_({Rule("*", Path("data/secret/**"), false, false),
                 Rule("bob", Path("data/**"), true, true)},
                RoleOf) {
    std::filesystem::create_directories(directory_.Native() / "data" / "secret");
    WriteFile(directory_.Native() / "data" / "open.txt", "x");
    WriteFile(directory_.Native() / "data" / "secret" / "key.txt", "x");
  }

  std::string Path(const char* name) const { return std::string((directory_ / name).Utf8()); }
  bool MayBobRead(const std::string& path) const { return policy_.IsGranted(path, "bob", true); }
  bool MayBobWrite(const std::string& path) const { return policy_.IsGranted(path, "bob", false); }

  TemporaryDirectory directory_;
  PrivacyPolicy policy_;
};
