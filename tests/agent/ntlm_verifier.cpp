#include "tests/agent/ntlm_verifier.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace {

using Bytes = NtlmVerifier::Bytes;
using Span = std::span<const uint8_t>;

constexpr std::array<uint8_t, 8> kServerChallenge = {0x01, 0x23, 0x45, 0x67,
                                                     0x89, 0xAB, 0xCD, 0xEF};
constexpr uint32_t kKeyExchange = 0x40000000;
// In an answer by version 2: the proof, then a head, then the pairs.
constexpr size_t kProofSize = 16;
constexpr size_t kPairsOffset = kProofSize + 28;

void Append(uint64_t number, size_t size, Bytes* bytes) {
  for (size_t i = 0; i < size; ++i) bytes->push_back(static_cast<uint8_t>(number >> (8 * i)));
}

void Append(Span part, Bytes* bytes) {
  bytes->insert(bytes->end(), part.begin(), part.end());
}

Bytes Utf16(const std::u16string& text) {
  Bytes bytes;
  for (const char16_t unit : text) Append(unit, 2, &bytes);
  return bytes;
}

void AppendPair(uint16_t id, Span value, Bytes* bytes) {
  Append(id, 2, bytes);
  Append(value.size(), 2, bytes);
  Append(value, bytes);
}

uint32_t Number(Span bytes, size_t offset, size_t size) {
  if (offset + size > bytes.size()) throw std::runtime_error("the message is too short");
  uint32_t number = 0;
  for (size_t i = 0; i < size; ++i) number |= uint32_t{bytes[offset + i]} << (8 * i);
  return number;
}

Bytes Part(Span message, size_t fields) {
  const size_t size = Number(message, fields, 2);
  const size_t start = Number(message, fields + 4, 4);
  if (start > message.size() || size > message.size() - start)
    throw std::runtime_error("a part leaves the message");
  return {message.begin() + static_cast<ptrdiff_t>(start),
          message.begin() + static_cast<ptrdiff_t>(start + size)};
}

std::u16string TextPart(Span message, size_t fields) {
  const Bytes bytes = Part(message, fields);
  std::u16string text;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2)
    text += static_cast<char16_t>(bytes[i] | bytes[i + 1] << 8);
  return text;
}

Bytes HmacMd5(Span key, Span bytes) {
  Bytes digest(16);
  unsigned size = 0;
  if (HMAC(EVP_md5(), key.data(), static_cast<int>(key.size()), bytes.data(), bytes.size(),
           digest.data(), &size) == nullptr)
    throw std::runtime_error("no HMAC");
  return digest;
}

Bytes Rc4(Span key, Bytes bytes) {
  std::array<uint8_t, 256> state;
  std::iota(state.begin(), state.end(), uint8_t{0});
  for (size_t i = 0, j = 0; i < state.size(); ++i) {
    j = (j + state[i] + key[i % key.size()]) % state.size();
    std::swap(state[i], state[j]);
  }
  size_t i = 0;
  size_t j = 0;
  for (uint8_t& byte : bytes) {
    i = (i + 1) % state.size();
    j = (j + state[i]) % state.size();
    std::swap(state[i], state[j]);
    byte ^= state[(state[i] + state[j]) % state.size()];
  }
  return bytes;
}

// The letters that the tests' names have.
char16_t UpperCase(char16_t unit) {
  const bool isSmall = (unit >= u'a' && unit <= u'z') || (unit >= u'\u00E0' && unit <= u'\u00FE');
  return isSmall ? static_cast<char16_t>(unit - 0x20) : unit;
}

}  // namespace

Bytes NtlmVerifier::Challenge(uint32_t flags) {
  const Bytes target = Utf16(u"FILES");
  Bytes pairs;
  AppendPair(2, target, &pairs);  // domain
  AppendPair(1, target, &pairs);  // computer
  AppendPair(0, {}, &pairs);

  constexpr size_t kHeadSize = 56;
  Bytes message = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};
  Append(2, 4, &message);
  Append(target.size(), 2, &message);
  Append(target.size(), 2, &message);
  Append(kHeadSize, 4, &message);
  Append(flags, 4, &message);
  Append(kServerChallenge, &message);
  Append(0, 8, &message);
  Append(pairs.size(), 2, &message);
  Append(pairs.size(), 2, &message);
  Append(kHeadSize + target.size(), 4, &message);
  Append(0x0F0000000000000A, 8, &message);  // version
  Append(target, &message);
  Append(pairs, &message);
  return message;
}

NtlmVerifier::NtlmVerifier(Span message)
    : domain_(TextPart(message, 28)),
      user_(TextPart(message, 36)),
      oldResponse_(Part(message, 12)),
      newResponse_(Part(message, 20)),
      encryptedKey_(Part(message, 52)),
      flags_(Number(message, 60, 4)) {
  if (Number(message, 8, 4) != 3) throw std::runtime_error("no AUTHENTICATE_MESSAGE");
}

Bytes NtlmVerifier::CoveredPair(uint16_t id) const {
  for (size_t at = kPairsOffset; at + 4 <= newResponse_.size();) {
    const size_t size = Number(newResponse_, at + 2, 2);
    if (at + 4 + size > newResponse_.size()) break;
    const auto first = newResponse_.begin() + static_cast<ptrdiff_t>(at + 4);
    if (Number(newResponse_, at, 2) == id) return {first, first + static_cast<ptrdiff_t>(size)};
    at += 4 + size;
  }
  return {};
}

Bytes NtlmVerifier::ResponseKey(Span passwordHash) const {
  std::u16string text = user_;
  std::transform(text.begin(), text.end(), text.begin(), &UpperCase);
  return HmacMd5(passwordHash, Utf16(text + domain_));
}

Bytes NtlmVerifier::Proof(Span passwordHash) const {
  Bytes covered(kServerChallenge.begin(), kServerChallenge.end());
  Append(Span(newResponse_).subspan(kProofSize), &covered);
  return HmacMd5(ResponseKey(passwordHash), covered);
}

bool NtlmVerifier::IsMadeWith(Span passwordHash) const {
  if (newResponse_.size() < kPairsOffset) return false;
  return std::ranges::equal(Proof(passwordHash), Span(newResponse_).first(kProofSize));
}

Bytes NtlmVerifier::SessionKey(Span passwordHash) const {
  const Bytes base = HmacMd5(ResponseKey(passwordHash), Proof(passwordHash));
  return (flags_ & kKeyExchange) != 0 ? Rc4(base, encryptedKey_) : base;
}
