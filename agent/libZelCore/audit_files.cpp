#include "agent/libZelCore/audit_files.h"

#include <algorithm>
#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <fstream>
#include <stdexcept>

#include "agent/libZel/hexadecimal.h"
#include "agent/libZel/whole_number.h"
#include "agent/libZelCore/core_log.h"

namespace audit_files {

namespace fs = std::filesystem;
namespace json = boost::json;

namespace {

constexpr size_t kReadBytes = 64 * 1024;

/// The digits of a text that are the usual form of a number from 1 on; else 0.
uint64_t NumberOf(std::string_view digits) {
  const uint64_t number = ReadWholeNumber<uint64_t>(digits).value_or(0);
  return std::to_string(number) == digits ? number : 0;
}

}  // namespace

std::string Sha256::Hex(std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned length = 0;
  const bool isDone = EVP_DigestInit_ex2(context_, digest_, nullptr) == 1 &&
                      EVP_DigestUpdate(context_, text.data(), text.size()) == 1 &&
                      EVP_DigestFinal_ex(context_, bytes.data(), &length) == 1;
  if (!isDone) throw std::runtime_error("SHA-256 is not available");
  return Hexadecimal(bytes.data(), length);
}

fs::path RotatedName(const fs::path& file, uint64_t number) {
  fs::path name = file.stem();
  name += "." + std::to_string(number);
  name += file.extension();
  return file.parent_path() / name;
}

uint64_t NumberOfName(const fs::path& file) {
  const std::string digits = FileText(file.stem().extension());
  return digits.empty() ? 0 : NumberOf(std::string_view(digits).substr(1));
}

std::map<uint64_t, fs::path> RotatedFiles(const fs::path& file) {
  std::map<uint64_t, fs::path> found;
  std::error_code error;
  const fs::path directory = file.has_parent_path() ? file.parent_path() : fs::path(".");
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const uint64_t number = NumberOfName(entry->path());
    if (number > 0 && RotatedName(file, number).filename() == entry->path().filename())
      found[number] = entry->path();
  }
  return found;
}

uint64_t NumberOfLine(std::string_view line) {
  json::error_code error;
  const json::value value = json::parse(line, error);
  if (error || !value.is_object()) return 0;
  const json::value* const number = value.get_object().if_contains(kFileMember);
  if (!number) return 1;
  return number->is_int64() && number->get_int64() > 1 ? static_cast<uint64_t>(number->get_int64())
                                                       : 0;
}

LastLine ReadLastLine(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary | std::ios::ate);
  if (!stream) throw std::runtime_error("cannot read the audit trail " + FileText(file));
  LastLine last;
  auto position = static_cast<uint64_t>(stream.tellg());
  if (position == 0) return last;

  std::string tail;
  for (bool isFirst = true; position > 0; isFirst = false) {
    const size_t length = static_cast<size_t>(std::min<uint64_t>(position, kReadBytes));
    position -= length;
    std::string block(length, '\0');
    stream.seekg(static_cast<std::streamoff>(position));
    if (!stream.read(block.data(), static_cast<std::streamsize>(length)))
      throw std::runtime_error("cannot read the audit trail " + FileText(file));
    if (isFirst) {
      last.hasEnd = block.back() == '\n';
      if (last.hasEnd) block.pop_back();
    }
    const size_t end = block.rfind('\n');
    tail.insert(0, end == std::string::npos ? block : block.substr(end + 1));
    if (end != std::string::npos) break;
  }
  last.text = std::move(tail);
  return last;
}

}  // namespace audit_files
