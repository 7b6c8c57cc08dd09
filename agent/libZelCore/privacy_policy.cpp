#include "agent/libZelCore/privacy_policy.h"

#include <algorithm>
#include <utility>

#include "agent/libZel/native_path.h"
#include "agent/libZelCore/canonical_path.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/credentials.h"

namespace {

constexpr int32_t kRefused = 0;
constexpr int32_t kGrantedRead = 1;
constexpr int32_t kGrantedWrite = 3;

constexpr std::string_view kRolePrefix = "role:";

// The canonical form of a rule's directory; links may change, so it is not kept.
CanonicalPath CanonicalDirectory(const std::string& directory) {
  const NativePath native = ToNativePath(directory);
  if (!native) return {{}, directory + ": " + native.error};
  return Canonical(native.path);
}

/// Names of programs may come in double quotes.
ZelString WithoutQuotes(const ZelString& path) {
  const size_t length = path.GetLength();
  const bool isQuoted = length >= 2 && path.StartsWith("\"") && path.EndsWith("\"");
  return isQuoted ? path.SubString(1, length - 2) : path;
}

bool StartsWithSeparator(const ZelString& text) {
  return text.StartsWith("/") || text.StartsWith("\\");
}

bool MatchesBelow(std::string_view directory, std::string_view rest, std::string_view path) {
  if (!path.starts_with(directory)) return false;
  path.remove_prefix(directory.size());
  if (rest.empty()) return path.empty();
  // "dir/**" covers the directory itself too: who may not touch its content may not remove it.
  if (path.empty()) return rest == "**";
  return path[0] == '/' && MatchesPathPattern(rest, path.substr(1));
}

}  // namespace

bool IsRooted(const ZelString& path) {
  ZelString drive, directory;
  SplitPath(path, &drive, &directory, nullptr, nullptr);
  return StartsWithSeparator(directory) || StartsWithSeparator(drive);
}

bool MatchesPathPattern(std::string_view pattern, std::string_view text) {
  // reachable[i]: the part of the pattern read so far matches the first i characters of the text.
  std::vector<bool> reachable(text.size() + 1, false);
  reachable[0] = true;
  for (size_t at = 0; at < pattern.size(); ++at) {
    if (pattern[at] != '*') {
      for (size_t i = text.size(); i > 0; --i)
        reachable[i] = reachable[i - 1] && text[i - 1] == pattern[at];
      reachable[0] = false;
      continue;
    }
    const bool crossesSeparators = at + 1 < pattern.size() && pattern[at + 1] == '*';
    while (at + 1 < pattern.size() && pattern[at + 1] == '*') ++at;
    for (size_t i = 1; i <= text.size(); ++i) {
      const bool extends = crossesSeparators || text[i - 1] != '/';
      if (extends && reachable[i - 1]) reachable[i] = true;
    }
  }
  return reachable[text.size()];
}

PrivacyPolicy::PrivacyPolicy(std::vector<PrivacyRule> rules, RoleOf roleOf)
    : roleOf_(std::move(roleOf)) {
  for (PrivacyRule& rule : rules) rules_.push_back(Prepare(std::move(rule)));
}

PrivacyPolicy::Rule PrivacyPolicy::Prepare(PrivacyRule rule) {
  std::string pattern = rule.pattern;
  std::replace(pattern.begin(), pattern.end(), '\\', '/');
  const size_t star = pattern.find('*');
  if (star == std::string::npos) return {std::move(rule), pattern, {}};
  const size_t separator = pattern.rfind('/', star);
  const size_t length = separator == std::string::npos ? 0 : separator + 1;
  return {std::move(rule), pattern.substr(0, length), FoldCase(pattern.substr(length))};
}

uint32_t PrivacyPolicy::Check(ZelContainer* parameters) const {
  ZelString kind, name, login, access;
  parameters->GetString("Class", &kind, kNoIndex);
  parameters->GetString("Name", &name, kNoIndex);
  parameters->GetString("Login", &login, kNoIndex);
  parameters->GetString("Access", &access, kNoIndex);
  parameters->Clear();

  const bool isRead = access == "Read";
  const bool isUnderstood = kind == "File System" && (isRead || access == "Write");
  const bool isGranted = isUnderstood && IsGranted(name, login.Utf8(), isRead);
  const int32_t granted = isRead ? kGrantedRead : kGrantedWrite;
  parameters->SetInt32("Result", isGranted ? granted : kRefused, kNoIndex);
  return 0;
}

bool PrivacyPolicy::IsGranted(const ZelString& name, std::string_view login, bool isRead) const {
  const ZelString path = WithoutQuotes(name);
  const NativePath native = ToNativePath(path);
  if (!native) {
    CoreLog().WarningWithNL("Access refused to \"%S\": %s", path, native.error.c_str());
    return false;
  }
  // Most callers have no rule of their own; then where the path leads makes no difference.
  const bool hasRule = std::any_of(rules_.begin(), rules_.end(),
                                   [&](const Rule& rule) { return AppliesTo(rule.rule, login); });
  if (!hasRule) return IsDefaultGranted(login);

  if (path.Find("\"") != ZelString::kNotFound) {
    // Taken as a command line, it would name another file than taken as a path.
    CoreLog().WarningWithNL("Access refused to \"%S\": it holds a double quote", path);
    return false;
  }
  if (!IsRooted(path)) {
    // A program would be looked for along the search path, not where the rules look.
    CoreLog().WarningWithNL("Access refused to \"%S\": it is no full path", path);
    return false;
  }
  for (const CanonicalPath& canonical : {Canonical(native.path), CanonicalEntry(native.path)}) {
    if (!canonical) {
      CoreLog().WarningWithNL("Access refused to \"%S\": %s", path, canonical.error.c_str());
      return false;
    }
    if (!IsCanonicalGranted(FoldCase(canonical.path), login, isRead)) return false;
  }
  return true;
}

bool PrivacyPolicy::IsCanonicalGranted(std::string_view path, std::string_view login,
                                       bool isRead) const {
  for (const Rule& rule : rules_) {
    if (!AppliesTo(rule.rule, login)) continue;
    CanonicalPath directory;
    if (!rule.directory.empty()) directory = CanonicalDirectory(rule.directory);
    if (!directory) {
      // The rule might have been the one that refuses.
      CoreLog().WarningWithNL("Access refused, for the rule \"%s\" cannot be applied: %s",
                              rule.rule.pattern.c_str(), directory.error.c_str());
      return false;
    }
    const bool matches = rule.directory.empty()
                             ? MatchesPathPattern(rule.rest, path)
                             : MatchesBelow(FoldCase(directory.path), rule.rest, path);
    if (matches) return isRead ? rule.rule.mayRead : rule.rule.mayWrite;
  }
  return IsDefaultGranted(login);
}

bool PrivacyPolicy::AppliesTo(const PrivacyRule& rule, std::string_view login) const {
  if (rule.login == "*") return true;
  if (!rule.login.starts_with(kRolePrefix)) return rule.login == login;
  return !login.empty() && roleOf_(login) == rule.login.substr(kRolePrefix.size());
}

bool PrivacyPolicy::IsDefaultGranted(std::string_view login) const {
  return login.empty() || roleOf_(login) == kAdministrator;
}
