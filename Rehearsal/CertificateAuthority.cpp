#include "Rehearsal/CertificateAuthority.h"

#include <stdexcept>

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace rehearsal {
namespace {

constexpr long secondsPerDay = 86400;

void check(bool succeeded) {
  if (!succeeded) throw std::runtime_error("OpenSSL could not make a certificate");
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  check(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1);
  X509_EXTENSION_free(extension);
}

void setRandomSerialNumber(X509* certificate) {
  std::uint64_t serial = 0;
  check(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1);
  check(ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial >> 1U) == 1);
}

/// A certificate for a fresh key, all but its extensions and signature.
Credentials unsignedCredentials(const std::string& commonName, int days) {
  Credentials made{.certificate = Certificate(X509_new()), .key = PrivateKey(EVP_EC_gen("P-256"))};
  X509* certificate = made.certificate.get();
  check(certificate != nullptr && made.key != nullptr);
  check(X509_set_version(certificate, X509_VERSION_3) == 1);
  setRandomSerialNumber(certificate);
  X509_gmtime_adj(X509_getm_notBefore(certificate), days < 0 ? 2L * days * secondsPerDay : -secondsPerDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate), days * secondsPerDay);
  check(X509_set_pubkey(certificate, made.key.get()) == 1);
  const auto* name = reinterpret_cast<const unsigned char*>(commonName.c_str());
  check(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, name, -1, -1, 0) == 1);
  return made;
}

}  // namespace

CertificateAuthority::CertificateAuthority() : root_(unsignedCredentials("Rehearsal Root", 1)) {
  X509* certificate = root_.certificate.get();
  check(X509_set_issuer_name(certificate, X509_get_subject_name(certificate)) == 1);
  addExtension(certificate, certificate, NID_basic_constraints, "critical,CA:TRUE");
  addExtension(certificate, certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(certificate, certificate, NID_subject_key_identifier, "hash");
  check(X509_sign(certificate, root_.key.get(), EVP_sha256()) > 0);
}

std::string CertificateAuthority::certificatePEM() const {
  const std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new(BIO_s_mem()), &BIO_free);
  check(memory != nullptr && PEM_write_bio_X509(memory.get(), root_.certificate.get()) == 1);
  char* text = nullptr;
  const long length = BIO_get_mem_data(memory.get(), &text);
  return {text, static_cast<std::size_t>(length)};
}

Credentials CertificateAuthority::issue(const std::string& hostName, int days) const {
  Credentials made = unsignedCredentials(hostName, days);
  X509* certificate = made.certificate.get();
  check(X509_set_issuer_name(certificate, X509_get_subject_name(root_.certificate.get())) == 1);
  addExtension(certificate, root_.certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(certificate, root_.certificate.get(), NID_ext_key_usage, "serverAuth");
  addExtension(certificate, root_.certificate.get(), NID_subject_alt_name, "DNS:" + hostName);
  addExtension(certificate, root_.certificate.get(), NID_authority_key_identifier, "keyid");
  check(X509_sign(certificate, root_.key.get(), EVP_sha256()) > 0);
  return made;
}

}  // namespace rehearsal
