#include "tests/agent/test_certificates.h"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>

#include "tests/agent/temporary_directory.h"

namespace {

constexpr long kHourSeconds = 60 * 60;
constexpr long kDaySeconds = 24 * kHourSeconds;

struct Free {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using Key = std::unique_ptr<EVP_PKEY, Free>;
using Certificate = std::unique_ptr<X509, Free>;

void Check(bool isDone) {
  if (!isDone) throw std::runtime_error("a test certificate cannot be made");
}

void AddExtension(X509* certificate, int kind, const std::string& value) {
  const std::unique_ptr<X509_EXTENSION, Free> extension(
      X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str()));
  Check(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
}

Certificate Begin(const std::string& name, long serial, EVP_PKEY* key) {
  Certificate certificate(X509_new());
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDaySeconds);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kDaySeconds);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  return certificate;
}

template <typename Write>
void WritePem(const std::filesystem::path& file, Write write) {
  const std::unique_ptr<BIO, Free> bio(BIO_new(BIO_s_mem()));
  Check(write(bio.get()) == 1);
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &text);
  WriteFile(file, std::string(text, static_cast<size_t>(length)));
}

}  // namespace

struct TestAuthority::Implementation {
  Key key{EVP_EC_gen("P-256")};
  Certificate certificate;
};

TestAuthority::TestAuthority(const std::string& name) : implementation_(new Implementation) {
  EVP_PKEY* const key = implementation_->key.get();
  implementation_->certificate = Begin(name, 1, key);
  X509* const certificate = implementation_->certificate.get();
  X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
  AddExtension(certificate, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(certificate, NID_key_usage, "critical,keyCertSign");
  Check(X509_sign(certificate, key, EVP_sha256()) > 0);
}

TestAuthority::~TestAuthority() {
  delete implementation_;
}

void TestAuthority::WriteCertificate(const std::filesystem::path& file) const {
  WritePem(file,
           [&](BIO* bio) { return PEM_write_bio_X509(bio, implementation_->certificate.get()); });
}

void TestAuthority::Issue(const std::string& alternativeName,
                          const std::filesystem::path& certificateFile,
                          const std::filesystem::path& keyFile, bool isExpired) const {
  const Key key(EVP_EC_gen("P-256"));
  const Certificate certificate = Begin("agent", 2, key.get());
  if (isExpired) X509_gmtime_adj(X509_getm_notAfter(certificate.get()), -kHourSeconds);
  X509_set_issuer_name(certificate.get(),
                       X509_get_subject_name(implementation_->certificate.get()));
  AddExtension(certificate.get(), NID_subject_alt_name, alternativeName);
  Check(X509_sign(certificate.get(), implementation_->key.get(), EVP_sha256()) > 0);
  WritePem(certificateFile, [&](BIO* bio) { return PEM_write_bio_X509(bio, certificate.get()); });
  WritePem(keyFile, [&](BIO* bio) {
    return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
}
