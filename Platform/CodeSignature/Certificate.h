#pragma once

#include "CodeSignature/Bytes.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct x509_st;

namespace platform::codesignature {

/// Whether the text is an object identifier in numbers ("1.2.840.113635").
[[nodiscard]] bool isObjectIdentifier(const std::string& text);

/// A certificate, as far as signatures and requirements look into one. Copies share it; any thread.
class Certificate {
 public:
  /// Shares the ownership of OpenSSL's object.
  explicit Certificate(x509_st* certificate);

  [[nodiscard]] x509_st* handle() const { return certificate_.get(); }
  [[nodiscard]] Bytes sha1() const;
  [[nodiscard]] Bytes sha256() const;

  /// The subject's attributes of one kind, by the name the requirement language has for it ("CN", "OU"), in the order
  /// of the certificate. Empty for names it does not know.
  [[nodiscard]] std::vector<std::string> subjectAttributes(std::string_view name) const;
  [[nodiscard]] bool hasExtension(const std::string& objectIdentifier) const;
  [[nodiscard]] bool hasPolicy(const std::string& objectIdentifier) const;
  /// The text of an extension that is a UTF8String.
  [[nodiscard]] std::optional<std::string> extensionText(const std::string& objectIdentifier) const;
  /// Whether it is signed with its own key.
  [[nodiscard]] bool isSelfSigned() const;

 private:
  std::shared_ptr<x509_st> certificate_;
};

/// From the leaf to the root. Empty for ad-hoc signed code.
using CertificateChain = std::vector<Certificate>;

/// The certificates that play the platform vendor's roots. A value.
class Anchors {
 public:
  /// The vendor's own root, known by its fingerprint.
  static Anchors platformDefault();
  /// The certificates of a PEM text; absent when there is none in it.
  static std::optional<Anchors> fromPEM(std::string_view text);

  [[nodiscard]] bool contains(const Certificate& certificate) const;
  /// Those known in full, not by fingerprint alone.
  [[nodiscard]] const CertificateChain& certificates() const { return certificates_; }

 private:
  std::set<Bytes> fingerprints_;
  CertificateChain certificates_;
};

/// All certificates of a PEM text, in its order.
[[nodiscard]] std::vector<Certificate> certificatesOfPEM(std::string_view text);

}  // namespace platform::codesignature
