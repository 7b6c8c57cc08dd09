#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

/// The server's side of NTLM version 2, enough to check a log-in by hand ([MS-NLMP] 3.3.2).
class NtlmVerifier {
 public:
  using Bytes = std::vector<uint8_t>;

  /// Flags that servers answer with: Unicode, target, signing, session security, key exchange.
  static constexpr uint32_t kFlags = 0xE2888215;

  /// The message with `flags`, and the target's names in it.
  static Bytes Challenge(uint32_t flags = kFlags);

  /// Takes the client's answer to `Challenge` apart. Throws std::runtime_error when it cannot.
  explicit NtlmVerifier(std::span<const uint8_t> authenticate);

  const std::u16string& Domain() const { return domain_; }
  const std::u16string& User() const { return user_; }
  const Bytes& OldResponse() const { return oldResponse_; }
  const Bytes& NewResponse() const { return newResponse_; }
  uint32_t Flags() const { return flags_; }
  /// The value of a pair that the client covered with its answer; none when there is no such pair.
  Bytes CoveredPair(uint16_t id) const;

  /// Whether the answer was made with the password whose MD4 digest over UTF-16 is `passwordHash`.
  bool IsMadeWith(std::span<const uint8_t> passwordHash) const;
  /// The session key that client and server share when it was.
  Bytes SessionKey(std::span<const uint8_t> passwordHash) const;

 private:
  Bytes ResponseKey(std::span<const uint8_t> passwordHash) const;
  Bytes Proof(std::span<const uint8_t> passwordHash) const;

  std::u16string domain_;
  std::u16string user_;
  Bytes oldResponse_;
  Bytes newResponse_;
  Bytes encryptedKey_;
  uint32_t flags_ = 0;
};
