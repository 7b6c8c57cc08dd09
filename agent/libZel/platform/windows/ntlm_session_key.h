#pragma once

#include <cstdint>
#include <span>

#include "agent/libZel/smb/ntlm_provider.h"
#include "agent/libZel/smb/password_digest.h"

namespace smb {

/// The exported session key ([MS-NLMP] 3.1.5.1.2) of the answer that a provider has made, by
/// version 2, with the password of that digest: for providers that do not tell it. Throws
/// std::runtime_error when the answer has no such parts.
Bytes SessionKeyOfAnswer(std::span<const uint8_t> authenticate, const PasswordDigest& password);

}  // namespace smb
