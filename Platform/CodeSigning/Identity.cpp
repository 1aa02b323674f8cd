#include "CodeSigning/Identity.h"

#include <algorithm>

#include <openssl/pem.h>

namespace platform::codesigning {

using codesignature::Certificate;

Signed<Identity> Identity::fromPEM(std::string_view text) {
  const codesignature::BioHandle bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  codesignature::PrivateKeyHandle key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
  if (!key) return std::unexpected("the identity has no private key");
  auto certificates = codesignature::certificatesOfPEM(text);
  const auto leaf = std::ranges::find_if(certificates, [&key](const Certificate& certificate) {
    return X509_check_private_key(certificate.handle(), key.get()) == 1;
  });
  if (leaf == certificates.end()) return std::unexpected("the identity has no certificate for its private key");
  std::rotate(certificates.begin(), leaf, leaf + 1);
  return Identity(std::move(key), std::move(certificates));
}

std::string Identity::teamIdentifier() const {
  const auto units = leaf().subjectAttributes("OU");
  return units.empty() ? std::string() : units.front();
}

}  // namespace platform::codesigning
