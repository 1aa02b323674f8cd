#pragma once

#include <memory>
#include <string>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace rehearsal {

struct OpenSSLFree {
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Certificate = std::unique_ptr<X509, OpenSSLFree>;
using PrivateKey = std::unique_ptr<EVP_PKEY, OpenSSLFree>;

/// A key and the certificate that vouches for it.
struct Credentials {
  Certificate certificate;
  PrivateKey key;
};

/// A certificate authority of our own, for servers on loopback: made anew for each run, trusted by nobody else. Throws
/// std::runtime_error when OpenSSL does.
class CertificateAuthority {
 public:
  CertificateAuthority();

  /// What a client has to trust.
  [[nodiscard]] std::string certificatePEM() const;

  /// A server certificate for one host name; `days` of validity from now, negative for one that has expired.
  [[nodiscard]] Credentials issue(const std::string& hostName, int days = 1) const;

 private:
  Credentials root_;
};

}  // namespace rehearsal
