// The file of the console users: whatever stands in it, a user who is known has a line of the
// documented form there, and a user who is removed takes this line along and no other.

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZelCore/credentials.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace {

bool HasOnly(std::string_view text, std::string_view characters) {
  return text.find_first_not_of(characters) == std::string_view::npos;
}

constexpr std::string_view kLower = "abcdefghijklmnopqrstuvwxyz0123456789-";
constexpr std::string_view kLoginCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_@";

bool HasLine(std::string_view content, const std::string& start) {
  return content.starts_with(start) || content.find("\n" + start) != std::string_view::npos;
}

std::vector<std::string> LinesOf(std::string_view content) {
  std::vector<std::string> lines;
  while (!content.empty()) {
    const size_t end = std::min(content.find('\n'), content.size());
    lines.emplace_back(content.substr(0, end));
    content.remove_prefix(std::min(end + 1, content.size()));
  }
  return lines;
}

void CheckRemoval(const std::filesystem::path& file, const std::string& login) {
  std::vector<std::string> expected = LinesOf(ReadBytes(file));
  std::erase_if(expected, [&](const std::string& line) { return line.starts_with(login + ":"); });
  UserStore(file).Remove(login);
  Require(LinesOf(ReadBytes(file)) == expected);
  UserStore after(file);
  Require(!after.Role(login));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch scratch;
  const std::filesystem::path file = scratch / "users";
  const std::string content(reinterpret_cast<const char*>(data), size);
  WriteBytes(file, content);

  UserStore users(file);
  const std::vector<std::string> logins = users.Logins();
  Require(std::is_sorted(logins.begin(), logins.end()));
  for (const std::string& login : logins) {
    Require(!login.empty() && login.size() <= 64 && HasOnly(login, kLoginCharacters));
    const auto role = users.Role(login);
    Require(role && !role->empty() && role->size() <= 32 && HasOnly(*role, kLower));
    Require(HasLine(content, login + ":" + *role + ":scrypt$"));
  }
  if (!logins.empty()) CheckRemoval(file, logins.front());
  return 0;
}
