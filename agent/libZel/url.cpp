#include "libZel/url.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

namespace {

constexpr uint32_t kMaxPort = 65535;

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}
bool IsHexDigit(char c) {
  return IsDigit(c) || (Lower(c) >= 'a' && Lower(c) <= 'f');
}

bool RemovePrefix(std::string_view* text, std::string_view lowerCasePrefix) {
  if (text->size() < lowerCasePrefix.size()) return false;
  for (size_t i = 0; i < lowerCasePrefix.size(); ++i) {
    if (Lower((*text)[i]) != lowerCasePrefix[i]) return false;
  }
  text->remove_prefix(lowerCasePrefix.size());
  return true;
}

// Blanks and control characters stand in no URL; a NUL would even cut it short on its way.
bool IsUrlCharacter(char c) {
  return static_cast<unsigned char>(c) > ' ' && c != '\x7F';
}

// A registered name as RFC 3986 has it, or one in letters beyond ASCII.
bool IsNameCharacter(char c) {
  return IsDigit(c) || (Lower(c) >= 'a' && Lower(c) <= 'z') || static_cast<signed char>(c) < 0 ||
         std::string_view("-._~%!$&'()*+,;=").find(c) != std::string_view::npos;
}

bool IsPort(std::string_view text) {
  uint32_t port = 0;
  for (const char c : text) {
    if (!IsDigit(c)) return false;
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
  return !name.empty() && std::all_of(name.begin(), name.end(), IsNameCharacter) &&
         (colon == text.size() || IsPort(text.substr(colon + 1)));
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

int UrlParseInet::LoadUrl(const ZelString&) {
  return 0;
}
