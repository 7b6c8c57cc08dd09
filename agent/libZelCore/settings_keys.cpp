#include "agent/libZelCore/settings_keys.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <optional>
#include <utility>

#include "agent/libZel/ascii.h"
#include "agent/libZel/blanks.h"
#include "agent/libZel/file_text.h"
#include "agent/libZel/whole_number.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/remote_invocation.h"
#include "agent/translations/translation_file.h"

namespace {

namespace fs = std::filesystem;
using Setter = SettingsKey::Setter;

constexpr size_t kMinSecretLength = 16;
constexpr uint64_t kDayMs = 24ull * 60 * 60 * 1000;
constexpr uint64_t kMaxBytes = 1ull << 60;

fs::path FileName(const SettingsTarget& target, const std::string& value) {
  return target.directory / fs::path(std::u8string(value.begin(), value.end()));
}

/// Nothing, or what is wrong with the number.
std::string ReadNumber(const std::string& value, uint64_t lowest, uint64_t highest,
                       uint64_t* number) {
  const auto read = ReadWholeNumber<uint64_t>(value);
  if (read && *read >= lowest && *read <= highest) {
    *number = *read;
    return {};
  }
  return "is not a number from " + std::to_string(lowest) + " to " + std::to_string(highest);
}

template <typename Number>
Setter NumberKey(Number Settings::*member, uint64_t lowest, uint64_t highest) {
  return [=](SettingsTarget& target, const std::string& value) -> std::string {
    uint64_t number = 0;
    std::string error = ReadNumber(value, lowest, highest, &number);
    if (error.empty()) target.settings.*member = static_cast<Number>(number);
    return error;
  };
}

template <typename Number>
Setter LimitKey(Number ArchiveLimits::*member, uint64_t highest) {
  return [=](SettingsTarget& target, const std::string& value) -> std::string {
    uint64_t number = 0;
    std::string error = ReadNumber(value, 1, highest, &number);
    if (error.empty()) target.settings.archiveLimits.*member = static_cast<Number>(number);
    return error;
  };
}

/// One of a few words, in the order of the values that they stand for.
template <typename Choice>
Setter ChoiceKey(Choice Settings::*member, std::vector<std::string> words) {
  return [=](SettingsTarget& target, const std::string& value) -> std::string {
    const auto found = std::find(words.begin(), words.end(), value);
    if (found == words.end()) {
      std::string error = "is none of ";
      for (const std::string& word : words) error += (&word == &words[0] ? "" : ", ") + word;
      return error;
    }
    target.settings.*member = static_cast<Choice>(found - words.begin());
    return {};
  };
}

Setter TextKey(std::string Settings::*member) {
  return [=](SettingsTarget& target, const std::string& value) -> std::string {
    target.settings.*member = value;
    return {};
  };
}

Setter FlagKey(bool Settings::*member) {
  return [=](SettingsTarget& target, const std::string& value) -> std::string {
    if (value != "yes" && value != "no") return "is neither yes nor no";
    target.settings.*member = value == "yes";
    return {};
  };
}

Setter FileKey(fs::path Settings::*member) {
  return [=](SettingsTarget& target, const std::string& value) -> std::string {
    target.settings.*member = value.empty() ? fs::path() : FileName(target, value);
    return {};
  };
}

std::string SetAgentName(SettingsTarget& target, const std::string& value) {
  const bool isName = !value.empty() && value.size() <= kMaxAgentNameLength &&
                      std::all_of(value.begin(), value.end(), IsAsciiNameCharacter);
  if (!isName) return "is not a name of 1 to 64 letters, digits, \".\", \"-\" and \"_\"";
  target.settings.agentName = value;
  return {};
}

std::string SetLanguage(SettingsTarget& target, const std::string& value) {
  if (!value.empty() && NormalLanguageTag(value).empty())
    return "is no language's tag, such as de or pt-BR";
  target.settings.language = value;
  return {};
}

std::string SetBindAddress(SettingsTarget& target, const std::string& value) {
  boost::system::error_code error;
  boost::asio::ip::make_address(value, error);
  if (error) return "is not an IPv4 or IPv6 address";
  target.settings.bindAddress = value;
  return {};
}

std::string SetCodePage(SettingsTarget& target, const std::string& value) {
  const std::string error = NumberKey(&Settings::codePage, 1, 65535)(target, value);
  if (!error.empty()) return error;
  if (!core_platform::IsKnownCodePage(target.settings.codePage))
    return "is no code page that this system knows";
  return {};
}

std::string SetSecretFile(SettingsTarget& target, const std::string& value) {
  if (value.empty()) return {};
  const fs::path file = FileName(target, value);
  std::optional<std::string> content = ReadFileText(file);
  if (!content) return "names a file that cannot be read";
  std::string secret = std::move(*content);
  while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r')) secret.pop_back();
  if (secret.size() < kMinSecretLength) return "names a file with fewer than 16 characters";
  if (core_platform::OthersMayRead(file)) {
    target.warnings.push_back("the fleet secret " + FileText(file) +
                              " can be read by other accounts of this machine");
  }
  target.settings.fleetSecretFile = file;
  target.settings.fleetSecret = std::move(secret);
  return {};
}

/// "NAME, NAME, ..."; nothing when a name is missing or no name.
std::optional<std::vector<std::string>> ParseNames(std::string_view rest) {
  std::vector<std::string> names;
  while (!TrimBlanks(rest).empty()) {
    const size_t comma = std::min(rest.find(','), rest.size());
    const std::string_view name = TrimBlanks(rest.substr(0, comma));
    if (name.empty() || !std::all_of(name.begin(), name.end(), IsAsciiNameCharacter)) return {};
    names.emplace_back(name);
    rest.remove_prefix(std::min(comma + 1, rest.size()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string SetAdministratorsOnly(SettingsTarget& target, const std::string& value) {
  auto actions = ParseNames(value);
  if (!actions) return "is not a list of actions' names with commas between them";
  target.settings.administratorsOnly = *std::move(actions);
  return {};
}

std::string SetHostNames(SettingsTarget& target, const std::string& value) {
  auto names = ParseNames(value);
  if (!names) return "is not a list of host names with commas between them";
  target.settings.hostNames = *std::move(names);
  return {};
}

std::string SetMasterAddress(SettingsTarget& target, const std::string& value) {
  if (!value.empty()) {
    if (const std::string error = CheckAgentAddress(value); !error.empty()) return error;
  }
  target.settings.masterAddress = value;
  return {};
}

bool IsHost(std::string_view host) {
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
    return host.find(':') != std::string_view::npos &&
           host.find_first_not_of("0123456789abcdefABCDEF.:") == std::string_view::npos;
  }
  return !host.empty() && std::all_of(host.begin(), host.end(), IsAsciiNameCharacter);
}

/// "host:port"; nothing stands for no relay. Windows has a SetParent of its own.
std::string SetRelayParent(SettingsTarget& target, const std::string& value) {
  if (value.empty()) return {};
  const size_t colon = value.rfind(':');
  const std::string host = value.substr(0, colon);
  uint64_t port = 0;
  const bool isParent = colon != std::string::npos && IsHost(host) &&
                        ReadNumber(value.substr(colon + 1), 1, 65535, &port).empty();
  if (!isParent) return "is not of the form host:port (an IPv6 address stands in brackets)";
  target.settings.relayHost = host;
  target.settings.relayPort = static_cast<uint16_t>(port);
  return {};
}

std::string SetArchiveNames(SettingsTarget& target, const std::string& value) {
  if (value != "windows" && value != "any") return "is neither windows nor any";
  target.settings.archiveLimits.windowsNames = value == "windows";
  return {};
}

std::string SetVisibility(SettingsTarget& target, const std::string& value) {
  if (value != "fleet" && value != "device") return "is neither fleet nor device";
  target.settings.listsOwnDeviceOnly = value == "device";
  return {};
}

}  // namespace

const std::vector<SettingsKey>& SettingsKeys() {
  static const std::vector<SettingsKey> keys = {
      {"agent", "name", SetAgentName},
      {"agent", "language", SetLanguage},
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
      {"security", "ssl",
       ChoiceKey(&Settings::ssl, {"none", "send", "send_and_receive", "send_and_receive_ext"})},
      {"security", "pac", ChoiceKey(&Settings::pac, {"none", "send", "send_and_receive"})},
      {"security", "pac_window_ms", NumberKey(&Settings::pacWindowMs, 1000, kDayMs)},
      {"security", "host_names", SetHostNames},
      {"relay", "parent", SetRelayParent},
      {"relay", "parent_guid", TextKey(&Settings::relayGuid)},
      {"relay", "alias_silence_ms", NumberKey(&Settings::aliasSilenceMs, 1000, kDayMs)},
      {"relay", "stall_timeout_ms", NumberKey(&Settings::stallTimeoutMs, 100, kDayMs)},
      {"relay", "max_uploads", NumberKey(&Settings::maxUploads, 1, 100000)},
      {"relay", "max_upload_bytes", NumberKey(&Settings::maxUploadBytes, 1, kMaxBytes)},
      {"archives", "max_entries", LimitKey(&ArchiveLimits::maxEntries, UINT32_MAX)},
      {"archives", "max_bytes", LimitKey(&ArchiveLimits::maxBytes, kMaxBytes)},
      {"archives", "max_ratio", LimitKey(&ArchiveLimits::maxRatio, 1000000)},
      {"archives", "names", SetArchiveNames},
      {"master", "address", SetMasterAddress},
      {"master", "timeout_ms", NumberKey(&Settings::masterTimeoutMs, 1, kDayMs)},
      {"master", "enabled", FlagKey(&Settings::isMaster)},
      {"master", "database", TextKey(&Settings::masterDatabase)},
      {"master", "connections", NumberKey(&Settings::masterConnections, 1, 1000)},
      {"master", "max_listed", NumberKey(&Settings::masterMaxListed, 1, 10000)},
      {"master", "visibility", SetVisibility},
      {"proxy", "pipe", TextKey(&Settings::proxyPipe)},
      {"proxy", "start", FlagKey(&Settings::proxyStart)},
      {"proxy", "absence_after_s", NumberKey(&Settings::absenceAfterS, 1, kDayMs / 1000)},
      {"http_check", "ca_file", FileKey(&Settings::webAuthoritiesFile)},
      {"log", "level",
       ChoiceKey(&Settings::logLevel, {"error", "warning", "print", "trace", "detail"})},
      {"log", "rotate_bytes", NumberKey(&Settings::logRotateBytes, 4096, 1ull << 40)},
      {"log", "kept_files", NumberKey(&Settings::logKeptFiles, 1, 1000)},
      {"audit", "rotate_bytes", NumberKey(&Settings::auditRotateBytes, 4096, 1ull << 40)},
      {"audit", "kept_files", NumberKey(&Settings::auditKeptFiles, 0, 100'000)},
  };
  return keys;
}
