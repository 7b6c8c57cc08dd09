#pragma once

#include <array>
#include <cstdint>

#include "libZel/string.h"

namespace smb {

/// What NTLM makes of a password ([MS-NLMP] 3.3.1, NTOWFv1). It is as good as the password itself,
/// and wiped with the object.
class PasswordDigest {
 public:
  explicit PasswordDigest(const ZelString& password);
  ~PasswordDigest();
  PasswordDigest(const PasswordDigest&) = delete;
  PasswordDigest& operator=(const PasswordDigest&) = delete;

  const std::array<uint8_t, 16>& Get() const { return value_; }

 private:
  std::array<uint8_t, 16> value_;
};

}  // namespace smb
