#pragma once

#include "CodeSignature/Certificate.h"
#include "CodeSignature/OpenSSLHandle.h"
#include "CodeSigning/SigningError.h"

#include <string>
#include <string_view>
#include <vector>

namespace platform::codesigning {

/// Who signs: a private key, its certificate and the chain above it.
class Identity {
 public:
  /// Reads one private key and the certificates of a PEM text; the leaf is the certificate of that key.
  static Signed<Identity> fromPEM(std::string_view text);

  [[nodiscard]] EVP_PKEY* key() const { return key_.get(); }
  [[nodiscard]] const codesignature::Certificate& leaf() const { return certificates_.front(); }
  /// The leaf first.
  [[nodiscard]] const std::vector<codesignature::Certificate>& certificates() const { return certificates_; }
  /// The leaf's organizational unit; empty when it has none.
  [[nodiscard]] std::string teamIdentifier() const;

 private:
  Identity(codesignature::PrivateKeyHandle key, std::vector<codesignature::Certificate> certificates)
      : key_(std::move(key)), certificates_(std::move(certificates)) {}
  codesignature::PrivateKeyHandle key_;
  std::vector<codesignature::Certificate> certificates_;
};

}  // namespace platform::codesigning
