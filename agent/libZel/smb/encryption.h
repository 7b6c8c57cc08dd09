#pragma once

#include <cstdint>

#include "agent/libZel/smb/bytes.h"
#include "agent/libZel/smb/messages.h"
#include "agent/libZel/smb/signing.h"

namespace smb {

/// Keys of both directions ([MS-SMB2] section 3.1.4.2).
struct EncryptionKeys {
  Key toServer;
  Key fromServer;
};

/// From the log-in's key, of which the first 16 bytes count. `preauth` matters for 3.1.1 alone.
EncryptionKeys DeriveEncryptionKeys(Dialect dialect, ByteView sessionKey,
                                    const PreauthHash& preauth);

/// Encrypts the messages of one session ([MS-SMB2] section 2.2.41), and decrypts its answers. What
/// fails throws std::runtime_error with a sentence for the log.
class Encryption {
 public:
  Encryption(Cipher cipher, const EncryptionKeys& keys, uint64_t sessionId)
      : cipher_(cipher), keys_(keys), sessionId_(sessionId) {}

  Bytes Encrypt(ByteView message);
  /// The message inside, which nobody has changed.
  Bytes Decrypt(ByteView encrypted) const;

 private:
  Cipher cipher_;
  EncryptionKeys keys_;
  uint64_t sessionId_;
  uint64_t lastNonce_ = 0;
};

}  // namespace smb
