#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "agent/libZel/smb/bytes.h"
#include "agent/libZel/smb/messages.h"

// What fails here throws std::runtime_error: the cryptographic library then lacks what every build
// of it has.

namespace smb {

constexpr size_t kKeyBytes = 16;
/// Wiped with the object.
struct Key : std::array<uint8_t, kKeyBytes> {
  ~Key();
};
using Signature = std::array<uint8_t, kSignatureBytes>;

/// The pre-authentication integrity hash of 3.1.1 ([MS-SMB2] section 3.1.4.4): over all messages
/// up to a point, in their order.
class PreauthHash {
 public:
  void Add(ByteView message);
  ByteView Value() const { return value_; }

 private:
  std::array<uint8_t, 64> value_{};
};

/// SP800-108 in counter mode with HMAC-SHA256, 128 bits long. `label` and `context` are given with
/// their terminating zeros where [MS-SMB2] section 3.1.4.2 has such.
Key DeriveKey(ByteView key, std::string_view label, ByteView context);

/// The key for signatures from that of the log-in, of which the first 16 bytes count, as they do
/// for dialects that sign with it itself. `preauth` matters for 3.1.1 alone.
Key SigningKey(Dialect dialect, ByteView sessionKey, const PreauthHash& preauth);

/// Puts the signature into a message and says in its flags that it is there.
void Sign(Dialect dialect, const Key& key, Bytes& message);
/// Whether a message has the signature that it must have; of a message that has none, false.
bool IsSignedWith(Dialect dialect, const Key& key, ByteView message);

}  // namespace smb
