#include "agent/libZelCore/settings.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <set>

#include "agent/libZel/native_path.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/ini_reader.h"
#include "agent/libZelCore/remote_invocation.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxNameLength = 64;
constexpr size_t kMinSecretLength = 16;
constexpr uint64_t kDayMs = 24ull * 60 * 60 * 1000;

struct Target {
  Settings& settings;
  const fs::path& directory;
  std::vector<std::string>& warnings;
};

/// Takes a value over; returns what is wrong with it, or nothing.
using Setter = std::function<std::string(Target&, const std::string& value)>;

struct Key {
  const char* section;
  const char* name;
  Setter set;
};

bool IsNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '-' || c == '_';
}

std::string_view TrimBlanks(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string FileText(const fs::path& file) {
  return std::string(FromNativePath(file).Utf8());
}

fs::path FileName(const Target& target, const std::string& value) {
  return target.directory / fs::path(std::u8string(value.begin(), value.end()));
}

template <typename Number>
Setter NumberKey(Number Settings::*member, uint64_t lowest, uint64_t highest) {
  return [=](Target& target, const std::string& value) -> std::string {
    uint64_t number = 0;
    const char* const end = value.data() + value.size();
    const auto parsed = std::from_chars(value.data(), end, number);
    const bool isNumber = parsed.ec == std::errc() && parsed.ptr == end;
    if (!isNumber || number < lowest || number > highest) {
      return "is not a number from " + std::to_string(lowest) + " to " + std::to_string(highest);
    }
    target.settings.*member = static_cast<Number>(number);
    return {};
  };
}

Setter TextKey(std::string Settings::*member) {
  return [=](Target& target, const std::string& value) -> std::string {
    target.settings.*member = value;
    return {};
  };
}

Setter FlagKey(bool Settings::*member) {
  return [=](Target& target, const std::string& value) -> std::string {
    if (value != "yes" && value != "no") return "is neither yes nor no";
    target.settings.*member = value == "yes";
    return {};
  };
}

Setter FileKey(fs::path Settings::*member) {
  return [=](Target& target, const std::string& value) -> std::string {
    target.settings.*member = value.empty() ? fs::path() : FileName(target, value);
    return {};
  };
}

std::string SetAgentName(Target& target, const std::string& value) {
  const bool isName = !value.empty() && value.size() <= kMaxNameLength &&
                      std::all_of(value.begin(), value.end(), IsNameCharacter);
  if (!isName) return "is not a name of 1 to 64 letters, digits, \".\", \"-\" and \"_\"";
  target.settings.agentName = value;
  return {};
}

std::string SetBindAddress(Target& target, const std::string& value) {
  const bool isAddress =
      !value.empty() && value.find_first_not_of("0123456789abcdefABCDEF.:%") == std::string::npos;
  if (!isAddress) return "is not an IPv4 or IPv6 address";
  target.settings.bindAddress = value;
  return {};
}

std::string SetCodePage(Target& target, const std::string& value) {
  const std::string error = NumberKey(&Settings::codePage, 1, 65535)(target, value);
  if (!error.empty()) return error;
  if (!core_platform::IsKnownCodePage(target.settings.codePage))
    return "is no code page that this system knows";
  return {};
}

std::string SetSecretFile(Target& target, const std::string& value) {
  if (value.empty()) return {};
  const fs::path file = FileName(target, value);
  std::ifstream stream(file, std::ios::binary);
  std::string secret{std::istreambuf_iterator<char>(stream), {}};
  if (!stream.is_open() || stream.bad()) return "names a file that cannot be read";
  while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r')) secret.pop_back();
  if (secret.size() < kMinSecretLength) return "names a file with fewer than 16 characters";
  if (core_platform::OthersMayRead(file)) {
    target.warnings.push_back("the fleet secret " + FileText(file) +
                              " can be read by other accounts of this machine");
  }
  target.settings.fleetSecret = std::move(secret);
  return {};
}

/// "NAME, NAME, ..."; nothing stands for no action.
std::string SetAdministratorsOnly(Target& target, const std::string& value) {
  std::vector<std::string> actions;
  for (std::string_view rest = value; !TrimBlanks(rest).empty();) {
    const size_t comma = std::min(rest.find(','), rest.size());
    const std::string_view name = TrimBlanks(rest.substr(0, comma));
    if (name.empty() || !std::all_of(name.begin(), name.end(), IsNameCharacter))
      return "is not a list of actions' names with commas between them";
    actions.emplace_back(name);
    rest.remove_prefix(std::min(comma + 1, rest.size()));
  }
  std::sort(actions.begin(), actions.end());
  target.settings.administratorsOnly = std::move(actions);
  return {};
}

std::string SetMasterAddress(Target& target, const std::string& value) {
  if (!value.empty()) {
    if (const std::string error = CheckAgentAddress(value); !error.empty()) return error;
  }
  target.settings.masterAddress = value;
  return {};
}

std::string SetLogLevel(Target& target, const std::string& value) {
  constexpr const char* kLevels[] = {"error", "warning", "print", "trace", "detail"};
  const auto found = std::find(std::begin(kLevels), std::end(kLevels), value);
  if (found == std::end(kLevels)) return "is none of error, warning, print, trace, detail";
  target.settings.logLevel = static_cast<ZelDebugLevel>(found - std::begin(kLevels));
  return {};
}

const std::vector<Key>& Keys() {
  static const std::vector<Key> keys = {
      {"agent", "name", SetAgentName},
      {"system", "code_page", SetCodePage},
      {"http", "address", SetBindAddress},
      {"http", "port", NumberKey(&Settings::port, 0, 65535)},
      {"http", "tls", FlagKey(&Settings::tls)},
      {"http", "certificate", FileKey(&Settings::certificateFile)},
      {"http", "private_key", FileKey(&Settings::privateKeyFile)},
      {"http", "allow_plain", FlagKey(&Settings::allowPlainRemote)},
      {"http", "max_body_bytes", NumberKey(&Settings::maxBodyBytes, 1024, 1ull << 30)},
      {"http", "max_connections", NumberKey(&Settings::maxConnections, 1, 1000000)},
      {"http", "request_timeout_ms", NumberKey(&Settings::requestTimeoutMs, 100, kDayMs)},
      {"http", "idle_timeout_ms", NumberKey(&Settings::idleTimeoutMs, 100, kDayMs)},
      {"http", "credential_memory_ms", NumberKey(&Settings::credentialMemoryMs, 0, kDayMs)},
      {"actions", "max_threads", NumberKey(&Settings::maxThreads, 1, 4096)},
      {"actions", "max_queued", NumberKey(&Settings::maxQueued, 0, 1000000)},
      {"actions", "administrators_only", SetAdministratorsOnly},
      {"fleet", "secret_file", SetSecretFile},
      {"fleet", "ca", FileKey(&Settings::fleetCaFile)},
      {"fleet", "timeout_ms", NumberKey(&Settings::remoteTimeoutMs, 1, kDayMs)},
      {"fleet", "connect_timeout_ms", NumberKey(&Settings::connectTimeoutMs, 1, kDayMs)},
      {"fleet", "allow_plain", FlagKey(&Settings::fleetAllowPlain)},
      {"master", "address", SetMasterAddress},
      {"proxy", "pipe", TextKey(&Settings::proxyPipe)},
      {"log", "level", SetLogLevel},
      {"log", "rotate_bytes", NumberKey(&Settings::logRotateBytes, 4096, 1ull << 40)},
      {"log", "kept_files", NumberKey(&Settings::logKeptFiles, 1, 1000)},
  };
  return keys;
}

bool IsOpenSection(std::string_view section) {
  return section == "drives" || section == "privacy";
}

bool IsSection(std::string_view section) {
  return IsOpenSection(section) || std::any_of(Keys().begin(), Keys().end(), [&](const Key& key) {
           return section == key.section;
         });
}

// The number of single-character changes between two short words.
size_t Distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i);
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, changed}));
    }
  }
  return row[b.size()];
}

std::string DidYouMean(std::string_view word, const std::vector<std::string_view>& known) {
  constexpr size_t kLongestWord = 40;
  constexpr size_t kNear = 2;
  if (word.size() > kLongestWord) return {};
  for (size_t distance = 0; distance <= kNear; ++distance) {
    for (const std::string_view candidate : known) {
      if (Distance(word, candidate) == distance)
        return " (did you mean \"" + std::string(candidate) + "\"?)";
    }
  }
  return {};
}

std::string Line(size_t line) {
  return "line " + std::to_string(line) + ": ";
}

void WarnOfUnknownSections(const IniDocument& document, std::vector<std::string>* warnings) {
  std::vector<std::string_view> known = {"drives", "privacy"};
  for (const Key& key : Keys()) known.push_back(key.section);
  for (const IniSection& section : document.sections) {
    if (IsSection(section.name)) continue;
    warnings->push_back(Line(section.line) + "unknown section [" + std::string(section.name) + "]" +
                        DidYouMean(section.name, known));
  }
}

std::string SetDrive(const IniEntry& entry, Settings* settings) {
  const char letter = entry.key.empty() ? '\0' : static_cast<char>(entry.key[0] & ~0x20);
  const bool isDrive =
      (entry.key.size() == 1 || entry.key.substr(1) == ":") && letter >= 'A' && letter <= 'Z';
  if (!isDrive) return "is not a drive letter";
  if (!entry.value.starts_with('/')) return "needs an absolute directory, such as /";
  if (!settings->drives.try_emplace(letter, entry.value).second) return "is set twice";
  return {};
}

bool IsAbsolutePattern(std::string_view pattern) {
  const auto isSeparator = [](char c) { return c == '/' || c == '\\'; };
  if (pattern.starts_with("**")) return true;
  if (!pattern.empty() && isSeparator(pattern[0])) return true;
  return pattern.size() >= 3 && pattern[1] == ':' && isSeparator(pattern[2]);
}

// "LOGIN, PATTERN, ACCESS"; the pattern itself may hold commas.
std::string ParseRule(std::string_view value, PrivacyRule* rule) {
  const size_t first = value.find(',');
  const size_t last = value.rfind(',');
  if (first == last) return "is not of the form LOGIN, PATTERN, ACCESS";
  const std::string_view login = TrimBlanks(value.substr(0, first));
  const std::string_view pattern = TrimBlanks(value.substr(first + 1, last - first - 1));
  const std::string_view access = TrimBlanks(value.substr(last + 1));

  if (login.empty()) return "names no login (\"\" stands for calls without one)";
  if (!IsAbsolutePattern(pattern)) return "needs a pattern that starts with a drive, / or **";
  if (access != "read" && access != "write" && access != "readwrite" && access != "none")
    return "ends in none of read, write, readwrite, none";
  rule->login = login == "\"\"" ? std::string_view() : login;
  rule->pattern = pattern;
  rule->mayRead = access == "read" || access == "readwrite";
  rule->mayWrite = access == "write" || access == "readwrite";
  return {};
}

std::optional<uint32_t> RuleNumber(std::string_view key) {
  constexpr std::string_view kPrefix = "rule";
  if (!key.starts_with(kPrefix)) return {};
  key.remove_prefix(kPrefix.size());
  uint32_t number = 0;
  const char* const end = key.data() + key.size();
  const auto parsed = std::from_chars(key.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end) return {};
  return number;
}

class Interpreter {
 public:
  explicit Interpreter(const fs::path& directory) : directory_(directory) {}

  void Read(std::string_view text) {
    const IniDocument document = ReadIni(text);
    result_.errors = document.errors;
    WarnOfUnknownSections(document, &result_.warnings);
    for (const IniEntry& entry : document.entries) {
      if (IsSection(entry.section)) ReadEntry(entry);
    }
    for (auto& [number, rule] : rules_) result_.settings.privacyRules.push_back(std::move(rule));
    CheckTogether();
    if (result_.settings.agentName.empty()) result_.settings.agentName = DefaultName();
    if (result_.settings.drives.empty()) result_.settings.drives = {{'C', "/"}};
  }

  SettingsResult Take() { return std::move(result_); }

 private:
  void ReadEntry(const IniEntry& entry) {
    if (entry.section == "drives") return Note(entry, SetDrive(entry, &result_.settings));
    if (entry.section == "privacy") return ReadRule(entry);

    std::vector<std::string_view> known;
    for (const Key& key : Keys()) {
      if (entry.section != key.section) continue;
      if (entry.key == key.name) {
        Target target{result_.settings, directory_, result_.warnings};
        return Note(entry, key.set(target, std::string(entry.value)));
      }
      known.push_back(key.name);
    }
    WarnOfUnknownKey(entry, known);
  }

  void ReadRule(const IniEntry& entry) {
    const std::optional<uint32_t> number = RuleNumber(entry.key);
    // A rule that is passed over in silence might be the one that refuses.
    if (!number) return Note(entry, "is not of the form rule1, rule2, ...");
    PrivacyRule rule;
    const std::string error = ParseRule(entry.value, &rule);
    if (!error.empty()) return Note(entry, error);
    if (!rules_.try_emplace(*number, std::move(rule)).second)
      Note(entry, "has the number of another rule");
  }

  void CheckTogether() {
    const Settings& settings = result_.settings;
    if (settings.tls && (settings.certificateFile.empty() || settings.privateKeyFile.empty())) {
      result_.errors.push_back("[http] tls = yes needs certificate and private_key");
    }
  }

  // A computer's name may hold characters that an agent's may not.
  static std::string DefaultName() {
    std::string name = core_platform::HostName().substr(0, kMaxNameLength);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !IsNameCharacter(c); }, '-');
    return name.empty() ? "agent" : name;
  }

  void Note(const IniEntry& entry, const std::string& error) {
    if (error.empty()) return;
    result_.errors.push_back(Line(entry.line) + "[" + std::string(entry.section) + "] " +
                             std::string(entry.key) + " = " + std::string(entry.value) + ": " +
                             error);
  }

  void WarnOfUnknownKey(const IniEntry& entry, const std::vector<std::string_view>& known) {
    result_.warnings.push_back(Line(entry.line) + "unknown key \"" + std::string(entry.key) +
                               "\" in section [" + std::string(entry.section) + "]" +
                               DidYouMean(entry.key, known));
  }

  const fs::path& directory_;
  SettingsResult result_;
  std::map<uint32_t, PrivacyRule> rules_;
};

}  // namespace

SettingsResult ParseSettings(std::string_view text, const fs::path& directory) {
  Interpreter interpreter(directory);
  interpreter.Read(text);
  return interpreter.Take();
}

SettingsResult LoadSettings(const fs::path& iniFile) {
  std::error_code error;
  const bool isThere = fs::exists(fs::symlink_status(iniFile, error));
  std::ifstream stream(iniFile, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  SettingsResult result = ParseSettings(text, iniFile.parent_path());
  if (isThere && (!stream.is_open() || stream.bad() || fs::is_directory(iniFile, error)))
    result.errors.push_back("cannot read " + FileText(iniFile));
  return result;
}
