#include "agent/libZelCore/settings.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <optional>
#include <utility>

#include "agent/libZel/ascii.h"
#include "agent/libZel/blanks.h"
#include "agent/libZel/file_text.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/whole_number.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/ini_reader.h"
#include "agent/libZelCore/remote_invocation.h"
#include "agent/libZelCore/settings_keys.h"

namespace {

namespace fs = std::filesystem;

bool IsOpenSection(std::string_view section) {
  return section == "drives" || section == "privacy";
}

bool IsSection(std::string_view section) {
  return IsOpenSection(section) ||
         std::any_of(SettingsKeys().begin(), SettingsKeys().end(),
                     [&](const SettingsKey& key) { return section == key.section; });
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
  for (const SettingsKey& key : SettingsKeys()) known.push_back(key.section);
  for (const IniSection& section : document.sections) {
    if (IsSection(section.name)) continue;
    warnings->push_back(Line(section.line) + "unknown section [" + std::string(section.name) + "]" +
                        DidYouMean(section.name, known));
  }
}

std::string SetDrive(const IniEntry& entry, Settings* settings) {
  const char letter = entry.key.empty() ? '\0' : AsciiUpper(entry.key[0]);
  const bool isDrive =
      (entry.key.size() == 1 || entry.key.substr(1) == ":") && IsAsciiLetter(letter);
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
  return ReadWholeNumber<uint32_t>(key);
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
    Complete();
    CheckTogether();
  }

  SettingsResult Take() { return std::move(result_); }

 private:
  // What is not set follows from what is.
  void Complete() {
    Settings& settings = result_.settings;
    // Relays are called by http addresses: a fleet with certificates speaks TLS all the same.
    const bool speaksTls = settings.tls && !settings.fleetCaFile.empty();
    if (!ssl_ && speaksTls) settings.ssl = SslUse::kSendAndReceive;
    if (settings.relayGuid.empty()) settings.relayGuid = settings.relayHost;
    if (result_.settings.agentName.empty()) result_.settings.agentName = DefaultName();
    if (result_.settings.drives.empty()) result_.settings.drives = {{'C', "/"}};
  }

  void ReadEntry(const IniEntry& entry) {
    if (entry.section == "drives") return Note(entry, SetDrive(entry, &result_.settings));
    if (entry.section == "privacy") return ReadRule(entry);

    if (entry.section == "http" && entry.key == "address") address_ = entry;
    if (entry.section == "security" && entry.key == "ssl") ssl_ = entry;
    if (entry.section == "security" && entry.key == "pac") pac_ = entry;

    std::vector<std::string_view> known;
    for (const SettingsKey& key : SettingsKeys()) {
      if (entry.section != key.section) continue;
      if (entry.key == key.name) {
        SettingsTarget target{result_.settings, directory_, result_.warnings};
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
    if (address_) CheckAddress(settings);
    if (ssl_ && settings.ssl != SslUse::kNone) CheckSsl(settings);
    if (pac_ && settings.pac != PacUse::kNone && settings.fleetSecret.empty())
      Note(*pac_, "needs [fleet] secret_file");
    if (!settings.relayHost.empty() && settings.fleetSecret.empty()) {
      result_.warnings.push_back(
          "[relay] parent without [fleet] secret_file: the relay will refuse this agent");
    }
  }

  // The agent would not start: told here, so that a check of the settings tells it too.
  void CheckAddress(const Settings& settings) {
    boost::system::error_code error;
    const auto address = boost::asio::ip::make_address(settings.bindAddress, error);
    if (error || address.is_loopback() || settings.tls || settings.allowPlainRemote) return;
    Note(*address_,
         "needs tls = yes, or allow_plain = yes: passwords would cross the network in clear");
  }

  void CheckSsl(const Settings& settings) {
    if (settings.fleetCaFile.empty()) Note(*ssl_, "needs [fleet] ca");
    if (settings.ssl != SslUse::kSend && !settings.tls) Note(*ssl_, "needs [http] tls = yes");
    const bool hasCertificate =
        !settings.certificateFile.empty() && !settings.privateKeyFile.empty();
    if (settings.ssl == SslUse::kSendAndReceiveExt && !hasCertificate)
      Note(*ssl_, "needs [http] certificate and private_key");
  }

  // A computer's name may hold characters that an agent's may not.
  static std::string DefaultName() {
    std::string name = core_platform::HostName().substr(0, kMaxAgentNameLength);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !IsAsciiNameCharacter(c); }, '-');
    return name.empty() ? "agent" : name;
  }

  void Note(const IniEntry& entry, const std::string& error) {
    if (error.empty()) return;
    result_.errors.push_back(Line(entry.line) + "[" + std::string(entry.section) + "] " +
                             std::string(entry.key) + " = " + Shown(entry) + ": " + error);
  }

  // Others than those who may read the file see what is wrong with it.
  static std::string Shown(const IniEntry& entry) {
    const bool isOfAgent = entry.section == "master" || entry.section == "relay";
    return isOfAgent ? WithoutCredentials(std::string(entry.value)) : std::string(entry.value);
  }

  void WarnOfUnknownKey(const IniEntry& entry, const std::vector<std::string_view>& known) {
    result_.warnings.push_back(Line(entry.line) + "unknown key \"" + std::string(entry.key) +
                               "\" in section [" + std::string(entry.section) + "]" +
                               DidYouMean(entry.key, known));
  }

  const fs::path& directory_;
  SettingsResult result_;
  std::map<uint32_t, PrivacyRule> rules_;
  std::optional<IniEntry> address_;  ///< where these are set
  std::optional<IniEntry> ssl_;
  std::optional<IniEntry> pac_;
};

/// Whether what is said of a database seems to hold a password: a word in front of "@" in a URL,
/// or a key of that name.
bool SeemsToHoldPassword(std::string_view value) {
  const std::string text = AsciiLower(value);
  if (text.find("password") != std::string::npos) return true;
  const size_t login = text.find("://");
  if (login == std::string::npos) return false;
  const size_t at = text.find('@', login);
  return at != std::string::npos && text.find(':', login + 3) < at;
}

}  // namespace

SettingsResult ParseSettings(std::string_view text, const fs::path& directory) {
  Interpreter interpreter(directory);
  interpreter.Read(text);
  return interpreter.Take();
}

SettingsResult LoadSettings(const fs::path& iniFile) {
  std::error_code error;
  // What may not be looked at is not taken for missing.
  const bool isThere = fs::symlink_status(iniFile, error).type() != fs::file_type::not_found;
  const std::optional<std::string> text = ReadFileText(iniFile);
  SettingsResult result = ParseSettings(text.value_or(""), iniFile.parent_path());
  if (isThere && !text)
    result.errors.push_back("cannot read " + std::string(FromNativePath(iniFile).Utf8()));
  result.holdsPassword = SeemsToHoldPassword(result.settings.masterDatabase);
  if (result.holdsPassword && core_platform::OthersMayRead(iniFile)) {
    result.warnings.push_back("[master] database holds a password, and " +
                              std::string(FromNativePath(iniFile).Utf8()) +
                              " can be read by other accounts of this machine");
  }
  return result;
}
