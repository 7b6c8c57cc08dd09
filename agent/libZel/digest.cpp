#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "agent/libZel/boundary.h"
#include "agent/libZel/digest_context.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/hexadecimal.h"
#include "agent/libZel/open_file.h"
#include "agent/libZel/outcome.h"
#include "libZel/file.h"

namespace {

constexpr uint32_t kDigestPieceBytes = uint32_t{1} << 20;

Outcome DigestOf(file_system::OpenFile* file, ZelString* digest) {
  const Outcome noDigest = FailedBecause("the cryptographic library offers no MD5");
  const DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1) return noDigest;

  const std::unique_ptr<char[]> piece(new char[kDigestPieceBytes]);
  for (;;) {
    uint32_t count = 0;
    const int error = file->Read(piece.get(), kDigestPieceBytes, &count);
    if (error != 0) return OutcomeOf(error);
    if (count == 0) break;
    if (EVP_DigestUpdate(context.get(), piece.get(), count) != 1) return noDigest;
  }
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  if (EVP_DigestFinal_ex(context.get(), bytes, &size) != 1) return noDigest;
  *digest = ZelString(Hexadecimal(bytes, size));
  return {};
}

Outcome Md5(const ZelString& path, ZelString* digest) {
  const NativePath native = ToNativeFile(path);
  if (!native) return InvalidName(native);
  const Outcome source = CheckSource(file_system::Look(native.path));
  if (!source) return source;
  file_system::OpenFile file;
  const int error = file.Open(native.path);
  return error == 0 ? DigestOf(&file, digest) : OutcomeOf(error);
}

}  // namespace

ZelString FileMd5(const ZelString& path) {
  return Guarded("FileMd5", ZelString(), [&] {
    ZelString digest;
    const Outcome outcome = Md5(path, &digest);
    if (!outcome)
      LibraryLog().WarningWithNL("digest of %S failed: %S", ForLog(path), outcome.reason);
    return digest;
  });
}
