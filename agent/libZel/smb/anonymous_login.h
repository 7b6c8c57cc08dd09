#pragma once

#include "agent/libZel/smb/ntlm_provider.h"

namespace smb {

/// Logs in as nobody. Such tokens hold nothing secret, and not every system's provider makes them.
class AnonymousLogin : public NtlmProvider {
 public:
  Bytes Negotiate() override;
  Bytes Authenticate(std::span<const uint8_t> challenge) override;
  Bytes SessionKey() const override { return {}; }
};

}  // namespace smb
