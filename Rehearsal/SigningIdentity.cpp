#include "Rehearsal/SigningIdentity.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>
#include <system_error>

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace rehearsal {
namespace {

constexpr const char* intermediateMarker = "1.2.840.113635.100.6.2.6";
constexpr const char* leafMarker = "1.2.840.113635.100.6.1.13";
constexpr int secondsPerDay = 86400;

template <auto Free>
struct Deleter {
  void operator()(auto* object) const { Free(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;
using Bio = std::unique_ptr<BIO, Deleter<BIO_free_all>>;

struct ExtensionText {
  std::string name;
  std::string value;
};

struct CertificatePlan {
  std::string commonName;
  std::string organization;
  std::vector<std::string> organizationalUnits;
  std::vector<ExtensionText> extensions;
  int validFromDays;
  int validUntilDays;
};

struct Signer {
  X509* certificate;
  EVP_PKEY* key;
};

bool addName(X509_NAME* name, const char* field, const std::string& value) {
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value.data()),
                                    static_cast<int>(value.size()), -1, 0) == 1;
}

bool setSubject(X509* certificate, const CertificatePlan& plan) {
  X509_NAME* name = X509_get_subject_name(certificate);
  bool isDone = addName(name, "CN", plan.commonName);
  for (const auto& unit : plan.organizationalUnits) isDone = isDone && addName(name, "OU", unit);
  return isDone && addName(name, "O", plan.organization) && addName(name, "C", "US");
}

bool setSerial(X509* certificate) {
  std::array<unsigned char, 8> bytes = {};
  if (RAND_bytes(bytes.data(), bytes.size()) != 1) return false;
  std::uint64_t number = 1;
  for (const unsigned char byte : bytes) number = number << 7U ^ byte;
  return ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), number) == 1;
}

bool addExtension(X509* certificate, X509* issuer, const ExtensionText& text) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509V3_set_ctx_nodb(&context);
  const Extension extension(X509V3_EXT_conf(nullptr, &context, text.name.c_str(), text.value.c_str()));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

/// A certificate for the key, by the issuer; without an issuer by itself.
Certificate makeCertificate(const CertificatePlan& plan, EVP_PKEY* key, const Signer* issuer) {
  constexpr long version3 = 2;
  Certificate certificate(X509_new());
  X509* subject = certificate.get();
  const Signer signer = issuer == nullptr ? Signer{subject, key} : *issuer;
  bool isDone = X509_set_version(subject, version3) == 1 && setSerial(subject) && setSubject(subject, plan) &&
                X509_set_issuer_name(subject, X509_get_subject_name(signer.certificate)) == 1 &&
                X509_gmtime_adj(X509_getm_notBefore(subject), long{plan.validFromDays} * secondsPerDay) != nullptr &&
                X509_gmtime_adj(X509_getm_notAfter(subject), long{plan.validUntilDays} * secondsPerDay) != nullptr &&
                X509_set_pubkey(subject, key) == 1;
  for (const auto& extension : plan.extensions) {
    isDone = isDone && addExtension(subject, signer.certificate, extension);
  }
  isDone = isDone && X509_sign(subject, signer.key, EVP_sha256()) > 0;
  return isDone ? std::move(certificate) : nullptr;
}

std::vector<ExtensionText> authorityExtensions() {
  return {{"basicConstraints", "critical,CA:TRUE"}, {"keyUsage", "critical,keyCertSign,cRLSign"}};
}

CertificatePlan rootPlan(const SigningIdentityPlan& plan) {
  constexpr int years = 20 * 365;
  return {plan.organization + " Rehearsal Root CA",
          plan.organization,
          {"Certification Authority"},
          authorityExtensions(),
          -years,
          years};
}

CertificatePlan intermediatePlan(const SigningIdentityPlan& plan) {
  CertificatePlan intermediate = rootPlan(plan);
  intermediate.commonName = plan.organization + " Rehearsal Developer ID CA";
  if (plan.hasIntermediateMarker) intermediate.extensions.push_back({intermediateMarker, "ASN1:NULL"});
  return intermediate;
}

CertificatePlan leafPlan(const SigningIdentityPlan& plan) {
  std::vector<ExtensionText> extensions = {{"basicConstraints", "critical,CA:FALSE"}};
  if (!plan.keyUsage.empty()) extensions.push_back({"keyUsage", "critical," + plan.keyUsage});
  if (!plan.extendedKeyUsage.empty()) extensions.push_back({"extendedKeyUsage", "critical," + plan.extendedKeyUsage});
  if (plan.hasLeafMarker) extensions.push_back({leafMarker, "critical,ASN1:NULL"});
  if (!plan.unknownCriticalExtension.empty()) {
    extensions.push_back({plan.unknownCriticalExtension, "critical,ASN1:NULL"});
  }
  return {"Developer ID Application: " + plan.organization,
          plan.organization,
          plan.organizationalUnits,
          extensions,
          plan.validFromDays,
          plan.validUntilDays};
}

std::string textOf(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  return {data, static_cast<std::size_t>(length)};
}

std::string pemOf(std::initializer_list<X509*> certificates) {
  const Bio bio(BIO_new(BIO_s_mem()));
  for (X509* certificate : certificates) PEM_write_bio_X509(bio.get(), certificate);
  return textOf(bio.get());
}

std::string pemOf(EVP_PKEY* key) {
  const Bio bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  return textOf(bio.get());
}

bool writeFile(const std::filesystem::path& path, std::string_view text, std::filesystem::perms permissions) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  std::error_code error;
  std::filesystem::permissions(path, permissions, error);
  file << text;
  file.close();
  return file.good() && !error;
}

}  // namespace

std::expected<void, std::string> SigningIdentity::writeInto(const std::string& folder) const {
  using std::filesystem::perms;
  constexpr perms ownersAlone = perms::owner_read | perms::owner_write;
  constexpr perms everybodys = ownersAlone | perms::group_read | perms::others_read;
  const std::filesystem::path place(folder);
  if (!writeFile(place / "identity.pem", identity, ownersAlone)) return std::unexpected(folder + ": cannot write");
  if (!writeFile(place / "anchors.pem", anchors, everybodys)) return std::unexpected(folder + ": cannot write");
  return {};
}

std::expected<SigningIdentity, std::string> makeSigningIdentity(const SigningIdentityPlan& plan) {
  const Key rootKey(EVP_EC_gen("P-256"));
  const Key intermediateKey(EVP_EC_gen("P-256"));
  const Key leafKey(EVP_EC_gen("P-256"));
  if (!rootKey || !intermediateKey || !leafKey) return std::unexpected("cannot make keys");
  const Certificate root = makeCertificate(rootPlan(plan), rootKey.get(), nullptr);
  if (!root) return std::unexpected("cannot make the root");
  const Signer rootSigner{root.get(), rootKey.get()};
  const Certificate intermediate = makeCertificate(intermediatePlan(plan), intermediateKey.get(), &rootSigner);
  if (!intermediate) return std::unexpected("cannot make the intermediate");
  const Signer intermediateSigner{intermediate.get(), intermediateKey.get()};
  const Certificate leaf = makeCertificate(leafPlan(plan), leafKey.get(), &intermediateSigner);
  if (!leaf) return std::unexpected("cannot make the leaf");
  return SigningIdentity{pemOf(leafKey.get()) + pemOf({leaf.get(), intermediate.get(), root.get()}),
                         pemOf({root.get()})};
}

}  // namespace rehearsal
