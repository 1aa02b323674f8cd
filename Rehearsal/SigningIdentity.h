#pragma once

#include <expected>
#include <string>
#include <vector>

namespace rehearsal {

/// What kind of signer to make: by default a maker with a Developer ID, of a certification authority of its own.
struct SigningIdentityPlan {
  std::string organization = "Corvane";
  std::vector<std::string> organizationalUnits = {"K4TQ9Z7M2P"};
  bool hasIntermediateMarker = true;  ///< the Developer ID extension of the intermediate
  bool hasLeafMarker = true;          ///< the Developer ID Application extension of the leaf
  std::string keyUsage = "digitalSignature";
  std::string extendedKeyUsage = "codeSigning";  ///< empty: no such extension
  std::string unknownCriticalExtension;          ///< an object identifier; empty: none
  int validFromDays = -1;                        ///< from now on, as `validUntilDays`
  int validUntilDays = 3650;
};

/// A signer and the root above it, as PEM.
struct SigningIdentity {
  std::string identity;  ///< private key, leaf, intermediate and root: what `codesign --sign` takes
  std::string anchors;   ///< the root: what a sysroot has in System/Library/Security/anchors.pem

  /// Writes identity.pem, readable by its owner alone, and anchors.pem into a folder.
  [[nodiscard]] std::expected<void, std::string> writeInto(const std::string& folder) const;
};

/// Makes keys and certificates anew. The error says which step failed.
[[nodiscard]] std::expected<SigningIdentity, std::string> makeSigningIdentity(const SigningIdentityPlan& plan = {});

}  // namespace rehearsal
