#include "agent/libZelCore/identity.h"

#include <algorithm>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "agent/libZel/ascii.h"
#include "agent/libZel/native_path.h"
#include "agent/libZelCore/private_file.h"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
constexpr std::string_view kNil = "00000000-0000-0000-0000-000000000000";

bool IsUuid(std::string_view text) {
  const auto fits = [](char c, char form) {
    if (form == '-') return c == '-';
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
  };
  return text != kNil && std::equal(text.begin(), text.end(), kForm.begin(), kForm.end(), fits);
}

[[noreturn]] void Fail(const fs::path& file, const char* problem) {
  throw std::runtime_error(
      "this device's identity " + std::string(FromNativePath(file).Utf8()) + " " + problem +
      ": restore it from a backup, or delete it and start again for a new identity");
}

std::string Read(const fs::path& file) {
  char bytes[kForm.size() + 8];  // with line ends; a file that fills it holds too much
  std::ifstream stream(file, std::ios::binary);
  stream.read(bytes, sizeof bytes);
  std::error_code error;
  if (!stream.is_open() || stream.bad() || fs::is_directory(file, error))
    Fail(file, "cannot be read");

  std::string text(bytes, static_cast<size_t>(stream.gcount()));
  const bool isTooLong = text.size() == sizeof bytes;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  text = AsciiLower(text);
  if (isTooLong || !IsUuid(text)) Fail(file, "holds no UUID");
  return text;
}

}  // namespace

std::string DeviceIdentity(const fs::path& file) {
  std::error_code error;
  if (fs::symlink_status(file, error).type() != fs::file_type::not_found) return Read(file);
  const std::string identity = to_string(boost::uuids::random_generator()());
  WritePrivateFile(file, identity + "\n");
  return identity;
}
