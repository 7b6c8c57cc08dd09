#include "agent/libZel/request_proof.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <stdexcept>

#include "agent/libZel/ascii.h"
#include "agent/libZel/digest_context.h"
#include "agent/libZel/hexadecimal.h"
#include "agent/libZel/hmac_sha256.h"

namespace {

constexpr std::string_view kScheme = "PAC ";
constexpr size_t kProofNonceBytes = 16;
constexpr size_t kLongestName = 64;
// Until the year 33658.
constexpr size_t kLongestDate = 12;

std::string Mac(const RequestProof& proof, const ProvenRequest& request,
                std::string_view fleetSecret) {
  const std::string date = std::to_string(proof.dateSeconds);
  std::string text;
  for (const std::string_view line :
       {request.method, request.target, request.host, std::string_view(proof.agentName),
        std::string_view(date), std::string_view(proof.nonce),
        std::string_view(proof.bodySha256)}) {
    text += line;
    text += '\n';
  }
  const auto mac = HmacSha256(fleetSecret, text);
  return Hexadecimal(mac.data(), mac.size());
}

std::string Nonce() {
  unsigned char bytes[kProofNonceBytes];
  if (RAND_bytes(bytes, sizeof bytes) != 1) {
    throw std::runtime_error("the system gives no random numbers");
  }
  return Hexadecimal(bytes, sizeof bytes);
}

// Takes "`name`=value" off the start of `*text`, and the comma behind it unless it is the last
// field. False when something else stands there.
bool TakeField(std::string_view* text, std::string_view name, bool isLast, std::string* value) {
  if (!text->starts_with(name) || text->size() == name.size() || (*text)[name.size()] != '=') {
    return false;
  }
  text->remove_prefix(name.size() + 1);
  const size_t end = text->find(',');
  if ((end == text->npos) != isLast) return false;
  *value = text->substr(0, end);
  text->remove_prefix(isLast ? text->size() : end + 1);
  return true;
}

bool IsHexOf(std::string_view text, size_t bytes) {
  // Small digits alone: it is a text that is compared.
  return text.size() == 2 * bytes && text.find_first_not_of("0123456789abcdef") == text.npos;
}

bool IsName(std::string_view text) {
  return !text.empty() && text.size() <= kLongestName &&
         std::all_of(text.begin(), text.end(), IsAsciiNameCharacter);
}

// A number has one form only: the mac is over the number.
bool ParseDate(std::string_view text, int64_t* date) {
  if (text.empty() || text.size() > kLongestDate || text[0] == '0') return false;
  if (!std::all_of(text.begin(), text.end(), IsAsciiDigit)) return false;
  return std::from_chars(text.data(), text.data() + text.size(), *date).ec == std::errc();
}

}  // namespace

struct BodyDigest::Implementation {
  static void Check(bool isDone) {
    if (!isDone) throw std::runtime_error("the cryptographic library offers no SHA-256");
  }
  DigestContext context{EVP_MD_CTX_new()};
};

BodyDigest::BodyDigest() : implementation_(std::make_unique<Implementation>()) {
  EVP_MD_CTX* const context = implementation_->context.get();
  Implementation::Check(context != nullptr &&
                        EVP_DigestInit_ex(context, EVP_sha256(), nullptr) == 1);
}

BodyDigest::~BodyDigest() = default;

void BodyDigest::Add(std::string_view piece) {
  Implementation::Check(
      EVP_DigestUpdate(implementation_->context.get(), piece.data(), piece.size()) == 1);
}

std::string BodyDigest::Hex() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  Implementation::Check(EVP_DigestFinal_ex(implementation_->context.get(), digest, &length) == 1);
  return Hexadecimal(digest, length);
}

std::string MakeProof(const PacContext& context, const ProvenRequest& request,
                      std::string_view bodySha256) {
  using std::chrono::duration_cast, std::chrono::seconds, std::chrono::system_clock;
  RequestProof proof;
  proof.agentName = context.agentName;
  proof.dateSeconds = duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
  proof.nonce = Nonce();
  proof.bodySha256 = bodySha256;
  proof.mac = Mac(proof, request, context.fleetSecret);
  return std::string(kScheme) + "agent=" + proof.agentName +
         ",date=" + std::to_string(proof.dateSeconds) + ",nonce=" + proof.nonce +
         ",sha256=" + proof.bodySha256 + ",mac=" + proof.mac;
}

std::optional<RequestProof> ParseProof(std::string_view authorization) {
  if (!authorization.starts_with(kScheme)) return std::nullopt;
  std::string_view rest = authorization.substr(kScheme.size());
  RequestProof proof;
  std::string date;
  const bool hasForm = TakeField(&rest, "agent", false, &proof.agentName) &&
                       TakeField(&rest, "date", false, &date) &&
                       TakeField(&rest, "nonce", false, &proof.nonce) &&
                       TakeField(&rest, "sha256", false, &proof.bodySha256) &&
                       TakeField(&rest, "mac", true, &proof.mac);
  const bool isProof = hasForm && IsName(proof.agentName) && ParseDate(date, &proof.dateSeconds) &&
                       IsHexOf(proof.nonce, kProofNonceBytes) &&
                       IsHexOf(proof.bodySha256, kSha256Bytes) && IsHexOf(proof.mac, kSha256Bytes);
  if (!isProof) return std::nullopt;
  return proof;
}

bool IsProofOf(const RequestProof& proof, const ProvenRequest& request,
               std::string_view fleetSecret) {
  // An agent without a fleet has no secret that others could know.
  if (fleetSecret.empty()) return false;
  const std::string mac = Mac(proof, request, fleetSecret);
  return mac.size() == proof.mac.size() &&
         CRYPTO_memcmp(mac.data(), proof.mac.data(), mac.size()) == 0;
}
