#include "agent/libZel/smb/wide_secret.h"

#include <openssl/crypto.h>

#include "agent/libZel/wtf8.h"

namespace smb {

WideSecret::WideSecret(std::string_view wtf8) {
  // No more units than bytes, so that nothing moves and leaves copies behind.
  units_.reserve(wtf8.size() + 1);
  uint32_t character = 0;
  while (const size_t size = DecodeWtf8(wtf8, &character)) {
    Append(character);
    wtf8.remove_prefix(size);
  }
  units_.push_back(0);
}

WideSecret::~WideSecret() {
  OPENSSL_cleanse(units_.data(), units_.size() * sizeof(uint16_t));
}

void WideSecret::Append(uint32_t character) {
  if (character < 0x10000) {
    units_.push_back(static_cast<uint16_t>(character));
    return;
  }
  units_.push_back(static_cast<uint16_t>(0xD800 + ((character - 0x10000) >> 10)));
  units_.push_back(static_cast<uint16_t>(0xDC00 + ((character - 0x10000) & 0x3FF)));
}

}  // namespace smb
