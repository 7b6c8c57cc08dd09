#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

// What writing and checking the audit trail have in common: docs/audit.md.
namespace audit_files {

/// What the first line of a trail holds as the hash of the line before.
constexpr std::string_view kGenesis =
    "0000000000000000000000000000000000000000000000000000000000000000";
/// The member by which the first line of a further file tells its number, from 2 on.
constexpr const char* kFileMember = "file";

/// SHA-256 (FIPS 180-4), hexadecimal.
class Sha256 {
 public:
  Sha256() : context_(EVP_MD_CTX_new()), digest_(EVP_MD_fetch(nullptr, "SHA256", nullptr)) {}
  ~Sha256() {
    EVP_MD_CTX_free(context_);
    EVP_MD_free(digest_);
  }
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  /// Throws std::runtime_error where the cryptographic library has none.
  std::string Hex(std::string_view text);

 private:
  EVP_MD_CTX* context_;
  EVP_MD* digest_;
};

/// "audit.3.jsonl" beside "audit.jsonl".
std::filesystem::path RotatedName(const std::filesystem::path& file, uint64_t number);

/// The rotated files of a trail, by number. Empty when the directory cannot be read.
std::map<uint64_t, std::filesystem::path> RotatedFiles(const std::filesystem::path& file);

/// Of a rotated file's own name its number; 0 for other names.
uint64_t NumberOfName(const std::filesystem::path& file);

/// The number that a file's first line tells, 1 where it tells none; 0 for what is no such line.
uint64_t NumberOfLine(std::string_view line);

struct LastLine {
  std::string text;  ///< without its line end; empty for an empty file
  bool hasEnd = true;
};

/// Reads backwards, so that starting an agent does not depend on the size of its audit trail.
/// Throws std::runtime_error naming the file.
LastLine ReadLastLine(const std::filesystem::path& file);

}  // namespace audit_files
