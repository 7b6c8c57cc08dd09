#include "agent/libZelCore/credentials.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "agent/libZel/ascii.h"
#include "agent/libZel/file_text.h"
#include "agent/libZel/security_context.h"
#include "agent/libZel/whole_number.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/private_file.h"

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLookInterval{250};
constexpr size_t kMostRemembered = 1024;
constexpr size_t kDigestBytes = 32;
constexpr size_t kSaltBytes = 16;
constexpr size_t kLongestLogin = 64;
constexpr size_t kLongestRole = 32;
constexpr size_t kLongestPassword = 1024;
constexpr std::string_view kAgentPrefix = kAgentLoginPrefix;

/// Cost parameters of RFC 7914, section 2.
struct ScryptCost {
  uint64_t n = 16384;
  uint64_t r = 8;
  uint64_t p = 1;
};
constexpr uint64_t kScryptMemoryBytes = 64 * 1024 * 1024;

std::string ToHex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    hex.push_back(kDigits[byte >> 4]);
    hex.push_back(kDigits[byte & 0xF]);
  }
  return hex;
}

/// The bytes of an even number of hexadecimal digits, or nothing.
std::optional<std::string> FromHex(std::string_view hex) {
  if (hex.empty() || hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (size_t i = 0; i < hex.size(); i += 2) {
    unsigned value = 0;
    const char* end = hex.data() + i + 2;
    if (std::from_chars(hex.data() + i, end, value, 16).ptr != end) return std::nullopt;
    bytes.push_back(static_cast<char>(value));
  }
  return bytes;
}

std::string RandomBytes(size_t count) {
  std::string bytes(count, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
    throw std::runtime_error("the system gives no random numbers");
  }
  return bytes;
}

std::string HmacSha256(std::string_view key, std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest,
           &length) == nullptr) {
    throw std::runtime_error("HMAC-SHA256 failed");
  }
  return {reinterpret_cast<const char*>(digest), length};
}

bool EqualInConstantTime(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

/// Empty when the cost parameters cannot be used.
std::string Scrypt(std::string_view password, std::string_view salt, const ScryptCost& cost) {
  std::string key(kDigestBytes, '\0');
  const int ok = EVP_PBE_scrypt(password.data(), password.size(),
                                reinterpret_cast<const unsigned char*>(salt.data()), salt.size(),
                                cost.n, cost.r, cost.p, kScryptMemoryBytes,
                                reinterpret_cast<unsigned char*>(key.data()), key.size());
  return ok == 1 ? key : std::string();
}

std::string HashPassword(std::string_view password) {
  const ScryptCost cost;
  const std::string salt = RandomBytes(kSaltBytes);
  const std::string key = Scrypt(password, salt, cost);
  if (key.empty()) throw std::runtime_error("the password could not be hashed");
  return "scrypt$" + std::to_string(cost.n) + "$" + std::to_string(cost.r) + "$" +
         std::to_string(cost.p) + "$" + ToHex(salt) + "$" + ToHex(key);
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (;;) {
    const size_t end = text.find(separator);
    parts.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + 1);
  }
}

struct PasswordHash {
  ScryptCost cost;
  std::string salt;
  std::string key;
};

std::optional<PasswordHash> ParseHash(std::string_view text) {
  const auto parts = Split(text, '$');
  if (parts.size() != 6 || parts[0] != "scrypt") return std::nullopt;
  const auto n = ReadWholeNumber<uint64_t>(parts[1]);
  const auto r = ReadWholeNumber<uint64_t>(parts[2]);
  const auto p = ReadWholeNumber<uint64_t>(parts[3]);
  const auto salt = FromHex(parts[4]);
  const auto key = FromHex(parts[5]);
  if (!n || !r || !p || !salt || !key || key->size() != kDigestBytes) return std::nullopt;
  return PasswordHash{{*n, *r, *p}, *salt, *key};
}

bool AllOf(std::string_view text, std::string_view extra, bool allowUpper) {
  return std::all_of(text.begin(), text.end(), [&](char c) {
    const bool isTaken = IsAsciiAlphanumeric(c) && (allowUpper || c == AsciiLower(c));
    return isTaken || extra.find(c) != std::string_view::npos;
  });
}

bool IsLogin(std::string_view login) {
  return !login.empty() && login.size() <= kLongestLogin && AllOf(login, ".-_@", true);
}

bool IsRole(std::string_view role) {
  return !role.empty() && role.size() <= kLongestRole && AllOf(role, "-", false);
}

void CheckLogin(std::string_view login) {
  if (IsLogin(login)) return;
  throw std::runtime_error("the login \"" + std::string(login) +
                           "\" must be 1 to 64 letters, digits, \".\", \"-\", \"_\" or \"@\"");
}

/// Characters of UTF-8 text, or nothing when it is not UTF-8 (RFC 3629) or holds control
/// characters.
std::optional<size_t> CountPrintable(std::string_view text) {
  size_t count = 0;
  for (size_t i = 0; i < text.size(); ++count) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x20 || lead == 0x7F) return std::nullopt;
    const size_t length = lead < 0x80 ? 1 : lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length == 0 || lead > 0xF4 || i + length > text.size()) return std::nullopt;
    uint32_t codePoint = length == 1 ? lead : lead & (0x7FU >> length);
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return std::nullopt;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    const bool isOverlong =
        (length == 3 && codePoint < 0x800) || (length == 4 && codePoint < 0x10000);
    const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    const bool isControl = codePoint >= 0x80 && codePoint < 0xA0;
    if (isOverlong || isSurrogate || isControl || codePoint > 0x10FFFF) return std::nullopt;
    i += length;
  }
  return count;
}

void CheckPasswordText(std::string_view password) {
  const auto count = CountPrintable(password);
  if (!count) {
    throw std::runtime_error("the password must be UTF-8 text without control characters");
  }
  if (*count < kMinPasswordCharacters) {
    throw std::runtime_error("the password must have at least " +
                             std::to_string(kMinPasswordCharacters) + " characters");
  }
  if (password.size() > kLongestPassword) {
    throw std::runtime_error("the password must have at most " + std::to_string(kLongestPassword) +
                             " bytes");
  }
}

/// Empty when there is no such file. Throws when there is one that cannot be read.
std::string ReadWhole(const std::filesystem::path& file) {
  std::error_code ec;
  if (!std::filesystem::exists(file, ec) && !ec) return {};
  std::optional<std::string> content = ReadFileText(file);
  if (!content) throw std::runtime_error("cannot read " + file.string());
  return *std::move(content);
}

/// The strict alphabet and padding of RFC 4648 section 4; nothing for any other text.
std::optional<std::string> DecodeBase64(std::string_view text) {
  if (text.empty() || text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  while (padding < 2 && text[text.size() - 1 - padding] == '=') ++padding;
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  uint32_t bits = 0;
  size_t held = 0;
  for (const char c : text.substr(0, text.size() - padding)) {
    uint32_t value = 0;
    if (c >= 'A' && c <= 'Z')
      value = static_cast<uint32_t>(c - 'A');
    else if (c >= 'a' && c <= 'z')
      value = static_cast<uint32_t>(c - 'a' + 26);
    else if (c >= '0' && c <= '9')
      value = static_cast<uint32_t>(c - '0' + 52);
    else if (c == '+')
      value = 62;
    else if (c == '/')
      value = 63;
    else
      return std::nullopt;
    bits = (bits << 6) | value;
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes.push_back(static_cast<char>((bits >> held) & 0xFF));
  }
  return bytes;
}

struct BasicCredential {
  std::string login;
  std::string password;
};

/// Takes the value of an Authorization header apart; nothing when it is not Basic.
std::optional<BasicCredential> ParseBasic(std::string_view header) {
  constexpr std::string_view kScheme = "basic ";
  if (header.size() <= kScheme.size()) return std::nullopt;
  if (!EqualsIgnoringCase(header.substr(0, kScheme.size()), kScheme)) return std::nullopt;
  header.remove_prefix(header.find_first_not_of(' ', kScheme.size()) == std::string_view::npos
                           ? header.size()
                           : header.find_first_not_of(' ', kScheme.size()));
  const auto decoded = DecodeBase64(header);
  if (!decoded) return std::nullopt;
  const size_t colon = decoded->find(':');
  if (colon == std::string::npos) return std::nullopt;
  return BasicCredential{decoded->substr(0, colon), decoded->substr(colon + 1)};
}

}  // namespace

std::string OwnerText(const Caller& caller) {
  const bool isAgent = caller.kind == Caller::Kind::kAgent;
  return isAgent ? std::string(kAgentPrefix) + caller.login : caller.login;
}

UserStore::UserStore(std::filesystem::path file) : file_(std::move(file)) {}

void UserStore::Add(const std::string& login, const std::string& role, std::string_view password) {
  CheckLogin(login);
  if (!IsRole(role)) {
    throw std::runtime_error("the role \"" + role +
                             "\" must be 1 to 32 lower-case letters, digits or \"-\"");
  }
  CheckPasswordText(password);
  const std::string line = login + ":" + role + ":" + HashPassword(password);

  const PrivateFileLock fileLock(file_);
  std::lock_guard lock(mutex_);
  Load();
  if (users_.contains(login)) throw std::runtime_error("the user " + login + " exists already");
  SaveLine(login, &line);
}

void UserStore::Remove(const std::string& login) {
  const PrivateFileLock fileLock(file_);
  std::lock_guard lock(mutex_);
  Load();
  if (!users_.contains(login)) throw std::runtime_error("there is no user " + login);
  SaveLine(login, nullptr);
}

void UserStore::SetPassword(const std::string& login, std::string_view password) {
  CheckPasswordText(password);
  const std::string hash = HashPassword(password);

  const PrivateFileLock fileLock(file_);
  std::lock_guard lock(mutex_);
  Load();
  const auto user = users_.find(login);
  if (user == users_.end()) throw std::runtime_error("there is no user " + login);
  const std::string line = login + ":" + user->second.role + ":" + hash;
  SaveLine(login, &line);
}

std::vector<std::string> UserStore::Logins() {
  std::lock_guard lock(mutex_);
  ReloadIfChanged();
  std::vector<std::string> logins;
  for (const auto& [login, user] : users_) logins.push_back(login);
  std::sort(logins.begin(), logins.end());
  return logins;
}

bool UserStore::CheckPassword(std::string_view login, std::string_view password) {
  const auto user = Find(login);
  const auto hash = user ? ParseHash(user->hash) : std::nullopt;
  if (!hash) {
    // As dear as the check of a known login, so that the time does not tell which logins exist.
    Scrypt(password, std::string(kSaltBytes, '\0'), ScryptCost());
    return false;
  }
  const std::string key = Scrypt(password, hash->salt, hash->cost);
  return !key.empty() && EqualInConstantTime(key, hash->key);
}

std::optional<std::string> UserStore::Role(std::string_view login) {
  const auto user = Find(login);
  return user ? std::optional(user->role) : std::nullopt;
}

uint64_t UserStore::Version() {
  std::lock_guard lock(mutex_);
  ReloadIfChanged();
  return version_;
}

std::optional<UserStore::User> UserStore::Find(std::string_view login) {
  std::lock_guard lock(mutex_);
  ReloadIfChanged();
  const auto found = users_.find(std::string(login));
  return found == users_.end() ? std::nullopt : std::optional(found->second);
}

void UserStore::ReloadIfChanged() {
  const auto now = steady_clock::now();
  if (now < nextLook_) return;
  nextLook_ = now + kLookInterval;
  if (FileStamp(file_) == stamp_) return;
  try {
    Load();
  } catch (const std::exception& error) {
    CoreLog().ErrorWithNL("No console user is known: %s", error.what());
  }
}

void UserStore::Load() {
  std::string stamp = FileStamp(file_);  // before: a write in between shows at the next look
  users_.clear();
  ++version_;
  // No file has this stamp: what cannot be read now, for lack of a handle say, is read again.
  stamp_ = "unread";
  std::istringstream lines(ReadWhole(file_));
  stamp_ = std::move(stamp);
  size_t lineNumber = 0;
  for (std::string line; std::getline(lines, line);) {
    ++lineNumber;
    if (line.ends_with('\r')) line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    const auto parts = Split(line, ':');
    const bool isUsable = parts.size() == 3 && IsLogin(parts[0]) && IsRole(parts[1]) &&
                          ParseHash(parts[2]) && !users_.contains(std::string(parts[0]));
    if (isUsable) {
      users_[std::string(parts[0])] = {std::string(parts[1]), std::string(parts[2])};
    } else {
      CoreLog().ErrorWithNL(
          "%s, line %u: not \"login:role:hash\" of a new user; the line is ignored",
          file_.string().c_str(), static_cast<uint32_t>(lineNumber));
    }
  }
}

void UserStore::SaveLine(const std::string& login, const std::string* line) {
  std::string content;
  bool isDone = line == nullptr;
  std::istringstream lines(ReadWhole(file_));
  for (std::string old; std::getline(lines, old);) {
    if (!old.starts_with(login + ":")) {
      content += old + "\n";
    } else if (!isDone) {
      content += *line + "\n";
      isDone = true;
    }
  }
  if (!isDone) content += *line + "\n";
  WritePrivateFile(file_, content);
  Load();
}

std::string FleetPassword(std::string_view secret, std::string_view agentName) {
  return ToHex(HmacSha256(secret, agentName));
}

Authenticator::Authenticator(UserStore& users, std::string fleetSecret,
                             std::chrono::milliseconds memory)
    : users_(users),
      fleetSecret_(std::move(fleetSecret)),
      memory_(memory),
      digestKey_(RandomBytes(kDigestBytes)) {}

Authenticator::Answer Authenticator::CheckQuickly(std::string_view header) {
  const uint64_t usersVersion = users_.Version();
  {
    const std::string digest = Digest(header);
    std::lock_guard lock(mutex_);
    if (usersVersion != usersVersion_) {
      remembered_.clear();
      usersVersion_ = usersVersion;
    }
    const auto found = remembered_.find(digest);
    if (found != remembered_.end()) {
      if (steady_clock::now() < found->second.until) {
        return {Verdict::kAccepted, found->second.caller};
      }
      remembered_.erase(found);
    }
  }
  const auto credential = ParseBasic(header);
  if (!credential) return {};
  Answer answer;
  if (!credential->login.starts_with(kAgentPrefix)) {
    answer.verdict = Verdict::kNeedsSlowCheck;
    answer.caller.login = credential->login;
    return answer;
  }
  answer.caller.kind = Caller::Kind::kAgent;
  answer.caller.login = credential->login.substr(kAgentPrefix.size());
  const bool isAccepted =
      !fleetSecret_.empty() && !answer.caller.login.empty() &&
      EqualInConstantTime(FleetPassword(fleetSecret_, answer.caller.login), credential->password);
  if (!isAccepted) return answer;
  answer.verdict = Verdict::kAccepted;
  Remember(header, answer.caller, usersVersion);
  return answer;
}

Authenticator::Answer Authenticator::CheckSlowly(std::string_view header) {
  const uint64_t usersVersion = users_.Version();
  const auto credential = ParseBasic(header);
  if (!credential) return {};
  Answer answer;
  answer.caller.login = credential->login;
  if (credential->login.starts_with(kAgentPrefix)) return answer;
  if (!users_.CheckPassword(credential->login, credential->password)) return answer;
  answer.verdict = Verdict::kAccepted;
  answer.caller.role = users_.Role(credential->login).value_or("");
  Remember(header, answer.caller, usersVersion);
  return answer;
}

std::string Authenticator::Digest(std::string_view header) const {
  return HmacSha256(digestKey_, header);
}

void Authenticator::Remember(std::string_view header, const Caller& caller, uint64_t usersVersion) {
  const auto now = steady_clock::now();
  const std::string digest = Digest(header);
  std::lock_guard lock(mutex_);
  // The users changed while the password was being checked: the next request checks again.
  if (usersVersion != usersVersion_) return;
  if (remembered_.size() >= kMostRemembered) {
    std::erase_if(remembered_, [now](const auto& entry) { return entry.second.until <= now; });
  }
  if (remembered_.size() >= kMostRemembered) remembered_.erase(remembered_.begin());
  remembered_[digest] = {caller, now + memory_};
}
