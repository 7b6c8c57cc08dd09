#include "libZel/url.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/libZel/ascii.h"
#include "agent/libZel/network/port.h"
#include "agent/libZel/percent_decoding.h"

namespace {

bool RemovePrefix(std::string_view* text, std::string_view lowerCasePrefix) {
  if (!EqualsIgnoringCase(text->substr(0, lowerCasePrefix.size()), lowerCasePrefix)) return false;
  text->remove_prefix(lowerCasePrefix.size());
  return true;
}

// Blanks and control characters stand in no URL; a NUL would even cut it short on its way.
bool IsUrlCharacter(char c) {
  return static_cast<unsigned char>(c) > ' ' && c != '\x7F';
}

// A registered name as RFC 3986 has it, or one in letters beyond ASCII.
bool IsHostCharacter(char c) {
  return IsUnreserved(c) || static_cast<signed char>(c) < 0 ||
         std::string_view("%!$&'()*+,;=").find(c) != std::string_view::npos;
}

bool IsPort(std::string_view text) {
  uint32_t port = 0;
  for (const char c : text) {
    if (!IsAsciiDigit(c)) return false;
    port = port * 10 + static_cast<uint32_t>(c - '0');
    if (port > kMaxPort) return false;
  }
  return true;
}

// "name", "name:port" or "name:"; an IPv6 address stands in brackets.
bool IsHostAndPort(std::string_view text) {
  if (text.starts_with('[')) {
    const size_t close = text.find(']');
    if (close == text.npos || close == 1) return false;
    const std::string_view address = text.substr(1, close - 1);
    const std::string_view rest = text.substr(close + 1);
    return std::all_of(address.begin(), address.end(),
                       [](char c) { return IsHexDigit(c) || c == ':' || c == '.'; }) &&
           (rest.empty() || (rest[0] == ':' && IsPort(rest.substr(1))));
  }
  const size_t colon = std::min(text.find(':'), text.size());
  const std::string_view name = text.substr(0, colon);
  return !name.empty() && std::all_of(name.begin(), name.end(), IsHostCharacter) &&
         (colon == text.size() || IsPort(text.substr(colon + 1)));
}

constexpr std::string_view kSubDelimiters = "!$&'()*+,;=";
constexpr size_t kIpv6Groups = 8;
constexpr size_t kIpv4Numbers = 4;

// Whether the text is made of unreserved characters, sub-delimiters, those in `more` and percent
// signs with two hexadecimal digits behind them.
bool IsEncoded(std::string_view text, std::string_view more) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size() || !IsHexDigit(text[i + 1]) || !IsHexDigit(text[i + 2]))
        return false;
      i += 2;
    } else if (!IsUnreserved(c) && kSubDelimiters.find(c) == kSubDelimiters.npos &&
               more.find(c) == more.npos) {
      return false;
    }
  }
  return true;
}

std::string_view TakeUpTo(std::string_view* text, char separator) {
  const size_t end = std::min(text->find(separator), text->size());
  const std::string_view taken = text->substr(0, end);
  text->remove_prefix(std::min(end + 1, text->size()));
  return taken;
}

bool IsIpv4Address(std::string_view text) {
  size_t count = 1 + static_cast<size_t>(std::count(text.begin(), text.end(), '.'));
  if (count != kIpv4Numbers) return false;
  for (; count > 0; --count) {
    const std::string_view number = TakeUpTo(&text, '.');
    unsigned value = 0;
    if (number.empty() || number.size() > 3 || (number.size() > 1 && number[0] == '0'))
      return false;
    for (const char c : number) {
      if (!IsAsciiDigit(c)) return false;
      value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value > 255) return false;
  }
  return true;
}

// The groups of 16 bits in a part of an IPv6 address, which may end in an IPv4 address when it is
// the last part; nothing when it is none.
std::optional<size_t> CountGroups(std::string_view text, bool isLast) {
  if (text.empty()) return 0;
  size_t separators = static_cast<size_t>(std::count(text.begin(), text.end(), ':'));
  size_t count = 0;
  for (;; --separators) {
    const std::string_view group = TakeUpTo(&text, ':');
    if (separators == 0 && isLast && IsIpv4Address(group)) return count + 2;
    if (group.empty() || group.size() > 4 || !std::all_of(group.begin(), group.end(), IsHexDigit))
      return std::nullopt;
    ++count;
    if (separators == 0) return count;
  }
}

bool IsIpv6Address(std::string_view text) {
  const size_t gap = text.find("::");
  if (gap == text.npos) return CountGroups(text, true) == kIpv6Groups;
  const auto before = CountGroups(text.substr(0, gap), false);
  const auto after = CountGroups(text.substr(gap + 2), true);
  return before && after && *before + *after < kIpv6Groups;
}

// The host in "host", "host:port" or "host:" without its brackets; empty when it is none of RFC
// 3986.
std::string_view HostIn(std::string_view hostAndPort) {
  if (!IsHostAndPort(hostAndPort)) return {};
  if (hostAndPort.starts_with('[')) {
    const std::string_view address = hostAndPort.substr(1, hostAndPort.find(']') - 1);
    return IsIpv6Address(address) ? address : std::string_view();
  }
  const std::string_view name = hostAndPort.substr(0, hostAndPort.find(':'));
  return IsEncoded(name, "") ? name : std::string_view();
}

// What stands behind the authority: path, query and fragment.
bool IsRest(std::string_view text) {
  const size_t fragment = std::min(text.find('#'), text.size());
  return IsEncoded(text.substr(0, fragment), ":@/?") &&
         (fragment == text.size() || IsEncoded(text.substr(fragment + 1), ":@/?"));
}

}  // namespace

int UrlParseInet::CanHandleUrl(const ZelString& text) {
  std::string_view rest = text.Utf8();
  if (!RemovePrefix(&rest, "http://") && !RemovePrefix(&rest, "https://")) return 0;
  if (!std::all_of(rest.begin(), rest.end(), IsUrlCharacter)) return 0;

  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  if (authority.find('\\') != authority.npos) return 0;
  const size_t at = authority.rfind('@');
  return IsHostAndPort(at == authority.npos ? authority : authority.substr(at + 1)) ? 1 : 0;
}

int UrlParseInet::LoadUrl(const ZelString& url) {
  *this = UrlParseInet();
  std::string_view rest = url.Utf8();
  if (!RemovePrefix(&rest, "http://") && !RemovePrefix(&rest, "https://")) return 0;
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  rest.remove_prefix(authority.size());

  // A second "@" is one too many: who reads it otherwise would send the password elsewhere.
  const size_t at = authority.find('@');
  const std::string_view host = HostIn(at == authority.npos ? authority : authority.substr(at + 1));
  std::string_view password = at == authority.npos ? std::string_view() : authority.substr(0, at);
  if (host.empty() || !IsEncoded(password, ":") || !IsRest(rest)) return 0;
  const std::string_view user = TakeUpTo(&password, ':');
  const std::optional<std::string> decodedUser = DecodePercent(user);
  const std::optional<std::string> decodedPassword = DecodePercent(password);
  if (!decodedUser || !decodedPassword) return 0;
  // A NUL would cut either short on its way.
  if ((*decodedUser + *decodedPassword).find('\0') != std::string::npos) return 0;

  user_ = ZelString(*decodedUser);
  password_ = ZelString(*decodedPassword);
  host_ = ZelString(host);
  return 1;
}
