#include "CodeSignature/Certificate.h"

#include "CodeSignature/Digest.h"
#include "CodeSignature/OpenSSLHandle.h"

#include <algorithm>
#include <array>

#include <openssl/pem.h>

namespace platform::codesignature {
namespace {

/// SHA-256 of the vendor's root certificate, the one genuine signatures lead to.
constexpr std::array<std::uint8_t, 32> platformRoot = {0xB0, 0xB1, 0x73, 0x0E, 0xCB, 0xC7, 0xFF, 0x45, 0x05, 0x14, 0x2C,
                                                       0x49, 0xF1, 0x29, 0x5E, 0x6E, 0xDA, 0x6B, 0xCA, 0xED, 0x7E, 0x2C,
                                                       0x68, 0xC5, 0xBE, 0x91, 0xB5, 0xA1, 0x10, 0x01, 0xF0, 0x24};

struct SubjectAttribute {
  std::string_view name;
  int nid;
};
constexpr std::array<SubjectAttribute, 9> subjectAttributeKinds = {{{"C", NID_countryName},
                                                                    {"CN", NID_commonName},
                                                                    {"D", NID_description},
                                                                    {"L", NID_localityName},
                                                                    {"O", NID_organizationName},
                                                                    {"OU", NID_organizationalUnitName},
                                                                    {"ST", NID_stateOrProvinceName},
                                                                    {"STREET", NID_streetAddress},
                                                                    {"UID", NID_userId}}};

std::string utf8Of(const ASN1_STRING* string) {
  unsigned char* text = nullptr;
  const int length = ASN1_STRING_to_UTF8(&text, string);
  if (length < 0) return {};
  std::string result(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
  OPENSSL_free(text);
  return result;
}

X509_EXTENSION* extensionOf(X509* certificate, const std::string& objectIdentifier) {
  const ObjectHandle object(OBJ_txt2obj(objectIdentifier.c_str(), 1));
  if (!object) return nullptr;
  const int index = X509_get_ext_by_OBJ(certificate, object.get(), -1);
  return index < 0 ? nullptr : X509_get_ext(certificate, index);
}

Bytes derOf(X509* certificate) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(certificate, &der);
  if (length < 0) return {};
  Bytes bytes(der, der + length);
  OPENSSL_free(der);
  return bytes;
}

struct PoliciesFree {
  void operator()(CERTIFICATEPOLICIES* policies) const { CERTIFICATEPOLICIES_free(policies); }
};

}  // namespace

bool isObjectIdentifier(const std::string& text) {
  constexpr std::size_t maximumLength = 128;
  if (text.size() > maximumLength ||
      !std::ranges::all_of(text, [](char c) { return c == '.' || (c >= '0' && c <= '9'); })) {
    return false;
  }
  if (text.starts_with('.') || text.ends_with('.') || text.contains("..")) return false;
  return ObjectHandle(OBJ_txt2obj(text.c_str(), 1)) != nullptr;
}

Certificate::Certificate(x509_st* certificate) : certificate_(certificate, X509_free) {
  X509_up_ref(certificate);
}

Bytes Certificate::sha1() const {
  return digest(HashType::sha1, derOf(handle()));
}
Bytes Certificate::sha256() const {
  return digest(HashType::sha256, derOf(handle()));
}

std::vector<std::string> Certificate::subjectAttributes(std::string_view name) const {
  const auto* kind = std::ranges::find(subjectAttributeKinds, name, &SubjectAttribute::name);
  if (kind == subjectAttributeKinds.end()) return {};
  std::vector<std::string> values;
  const X509_NAME* subject = X509_get_subject_name(handle());
  for (int i = X509_NAME_get_index_by_NID(subject, kind->nid, -1); i >= 0;
       i = X509_NAME_get_index_by_NID(subject, kind->nid, i)) {
    values.push_back(utf8Of(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i))));
  }
  return values;
}

bool Certificate::hasExtension(const std::string& objectIdentifier) const {
  return extensionOf(handle(), objectIdentifier) != nullptr;
}

bool Certificate::hasPolicy(const std::string& objectIdentifier) const {
  const ObjectHandle wanted(OBJ_txt2obj(objectIdentifier.c_str(), 1));
  const std::unique_ptr<CERTIFICATEPOLICIES, PoliciesFree> policies(
      static_cast<CERTIFICATEPOLICIES*>(X509_get_ext_d2i(handle(), NID_certificate_policies, nullptr, nullptr)));
  for (int i = 0; policies && i < sk_POLICYINFO_num(policies.get()); ++i) {
    if (OBJ_cmp(sk_POLICYINFO_value(policies.get(), i)->policyid, wanted.get()) == 0) return true;
  }
  return false;
}

std::optional<std::string> Certificate::extensionText(const std::string& objectIdentifier) const {
  X509_EXTENSION* extension = extensionOf(handle(), objectIdentifier);
  if (extension == nullptr) return std::nullopt;
  const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(extension);
  const unsigned char* der = ASN1_STRING_get0_data(value);
  const OpenSSLHandle<ASN1_UTF8STRING, ASN1_UTF8STRING_free> text(
      d2i_ASN1_UTF8STRING(nullptr, &der, ASN1_STRING_length(value)));
  if (!text) return std::nullopt;
  return utf8Of(text.get());
}

bool Certificate::isSelfSigned() const {
  return X509_self_signed(handle(), 1) == 1;
}

Anchors Anchors::platformDefault() {
  Anchors anchors;
  anchors.fingerprints_.insert(Bytes(platformRoot.begin(), platformRoot.end()));
  return anchors;
}

std::optional<Anchors> Anchors::fromPEM(std::string_view text) {
  Anchors anchors;
  anchors.certificates_ = certificatesOfPEM(text);
  if (anchors.certificates_.empty()) return std::nullopt;
  for (const auto& certificate : anchors.certificates_) anchors.fingerprints_.insert(certificate.sha256());
  return anchors;
}

bool Anchors::contains(const Certificate& certificate) const {
  return fingerprints_.contains(certificate.sha256());
}

std::vector<Certificate> certificatesOfPEM(std::string_view text) {
  std::vector<Certificate> certificates;
  const BioHandle bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  while (true) {
    const X509Handle certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!certificate) return certificates;
    certificates.emplace_back(certificate.get());
  }
}

}  // namespace platform::codesignature
