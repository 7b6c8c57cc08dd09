#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZelCore/settings.h"
#include "libZelCore.h"

/// Who may read and write which files: the rules of section [privacy], first match first, then the
/// default (calls without a login and users of role "administrator" may do everything, others
/// nothing). docs/consoles-and-users.md describes the rules and their limits.
///
/// A path is judged by what it leads to, with every link resolved, and where its last name is a
/// link, by where that stands as well: both must be granted. What cannot be resolved is refused.
/// Double quotes around a path do not count; one with a double quote inside, and one that is not
/// full, are refused to those who have a rule.
///
/// Threads: any number may ask at once.
class PrivacyPolicy {
 public:
  /// Tells the role of a login, or nothing for an unknown one.
  using RoleOf = std::function<std::optional<std::string>(std::string_view login)>;

  PrivacyPolicy(std::vector<PrivacyRule> rules, RoleOf roleOf);

  bool IsGranted(const ZelString& name, std::string_view login, bool isRead) const;

  /// The action "PrivacyCheck": `Class` "File System", `Name` (path), `Login`, `Access` "Read" or
  /// "Write". The container then holds `Result` (Int32) alone: 1 a granted read, 3 a granted write,
  /// 0 refused or not understood. Returns 0.
  uint32_t Check(ZelContainer* parameters) const;

 private:
  struct Rule {
    PrivacyRule rule;
    std::string directory;  ///< the pattern up to the last separator before its first "*"
    std::string rest;       ///< what follows, with "/" as separator
  };

  static Rule Prepare(PrivacyRule rule);
  bool AppliesTo(const PrivacyRule& rule, std::string_view login) const;
  bool IsCanonicalGranted(std::string_view path, std::string_view login, bool isRead) const;
  bool IsDefaultGranted(std::string_view login) const;

  std::vector<Rule> rules_;
  const RoleOf roleOf_;
};

/// Whether a text matches a pattern in which "*" stands for any text without "/" and "**" for any
/// text. Takes time in proportion to the product of both lengths at worst.
bool MatchesPathPattern(std::string_view pattern, std::string_view text);

/// Whether the path leads to the same place whatever the working directory is.
bool IsRooted(const ZelString& path);
