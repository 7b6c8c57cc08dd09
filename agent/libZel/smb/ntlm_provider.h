#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "libZel/string.h"

namespace smb {

using Bytes = std::vector<uint8_t>;

/// Makes the tokens of one log-in; NtlmLogin checks them and calls in the right order.
class NtlmProvider {
 public:
  NtlmProvider() = default;
  virtual ~NtlmProvider() = default;
  NtlmProvider(const NtlmProvider&) = delete;
  NtlmProvider& operator=(const NtlmProvider&) = delete;

  virtual Bytes Negotiate() = 0;
  virtual Bytes Authenticate(std::span<const uint8_t> challenge) = 0;
  /// 16 bytes; of an anonymous log-in, none. Only after `Authenticate`.
  virtual Bytes SessionKey() const = 0;
};

/// Who logs in. Of "name@domain" all is `name`, and `domain` is empty.
struct NtlmAccount {
  ZelString domain;
  ZelString name;
};

/// The system's provider, which uses this password and nothing else: no log-in, ticket or password
/// that the system remembers. Throws std::runtime_error with a sentence for the log.
std::unique_ptr<NtlmProvider> MakeSystemNtlmProvider(const NtlmAccount& account,
                                                     const ZelString& password,
                                                     const std::string& server);

}  // namespace smb
