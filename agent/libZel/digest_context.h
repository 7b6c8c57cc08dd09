#pragma once

#include <openssl/evp.h>

#include <memory>

struct FreeDigestContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
/// Owns a context of a digest; null is none.
using DigestContext = std::unique_ptr<EVP_MD_CTX, FreeDigestContext>;
