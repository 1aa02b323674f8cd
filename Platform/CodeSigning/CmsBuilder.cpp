#include "CodeSignature/CmsSignature.h"
#include "CodeSigning/SignatureBuilder.h"
#include "Platform/PropertyList.h"

#include <algorithm>

namespace platform::codesigning {
namespace {

using namespace codesignature;

/// A property list of all cdhashes, in the order of their hash types.
std::string cdhashList(std::span<const CodeDirectory> directories) {
  std::map<HashType, Bytes> hashes;
  for (const auto& directory : directories) hashes.emplace(directory.hashType(), directory.cdhash());
  PropertyList::Array list;
  for (auto& [type, hash] : hashes) list.emplace_back(std::move(hash));
  return PropertyList(PropertyList::Dictionary{{"cdhashes", std::move(list)}}).serialized(PropertyList::Format::xml);
}

/// SEQUENCE { OBJECT IDENTIFIER of the algorithm, OCTET STRING uncut hash }.
Bytes namedDigest(const CodeDirectory& directory) {
  const Bytes hash = uncutDigest(directory.hashType(), directory.bytes());
  const ASN1_OBJECT* algorithmName = OBJ_nid2obj(EVP_MD_get_type(algorithm(directory.hashType())));
  Bytes content(static_cast<std::size_t>(i2d_ASN1_OBJECT(algorithmName, nullptr)));
  unsigned char* position = content.data();
  i2d_ASN1_OBJECT(algorithmName, &position);
  content.push_back(V_ASN1_OCTET_STRING);
  content.push_back(static_cast<std::uint8_t>(hash.size()));
  content.insert(content.end(), hash.begin(), hash.end());
  Bytes sequence = {V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED, static_cast<std::uint8_t>(content.size())};
  sequence.insert(sequence.end(), content.begin(), content.end());
  return sequence;
}

bool addAttributes(CMS_SignerInfo* signer, std::span<const CodeDirectory> directories) {
  const std::string list = cdhashList(directories);
  if (CMS_signed_add1_attr_by_txt(signer, cdhashListAttribute, V_ASN1_OCTET_STRING, list.data(),
                                  static_cast<int>(list.size())) != 1) {
    return false;
  }
  const OpenSSLHandle<X509_ATTRIBUTE, X509_ATTRIBUTE_free> set(X509_ATTRIBUTE_new());
  const ObjectHandle name(OBJ_txt2obj(cdhashSetAttribute, 1));
  if (X509_ATTRIBUTE_set1_object(set.get(), name.get()) != 1) return false;
  return std::ranges::all_of(directories,
                             [&set](const CodeDirectory& directory) {
                               const Bytes value = namedDigest(directory);
                               return X509_ATTRIBUTE_set1_data(set.get(), V_ASN1_SEQUENCE, value.data(),
                                                               static_cast<int>(value.size())) == 1;
                             }) &&
         CMS_signed_add1_attr(signer, set.get()) == 1;
}

Bytes derOf(CMS_ContentInfo* cms) {
  unsigned char* der = nullptr;
  const int length = i2d_CMS_ContentInfo(cms, &der);
  if (length < 0) return {};
  Bytes bytes(der, der + length);
  OPENSSL_free(der);
  return bytes;
}

}  // namespace

Signed<Bytes> makeCms(const Identity& identity, std::span<const CodeDirectory> directories,
                      DirectoryAttributes attributes) {
  constexpr unsigned int flags = CMS_PARTIAL | CMS_DETACHED | CMS_BINARY | CMS_NOSMIMECAP;
  const CmsHandle cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
  CMS_SignerInfo* signer =
      cms ? CMS_add1_signer(cms.get(), identity.leaf().handle(), identity.key(), EVP_sha256(), flags) : nullptr;
  if (signer == nullptr) return std::unexpected("the identity cannot sign");
  for (const auto& certificate : identity.certificates()) CMS_add1_cert(cms.get(), certificate.handle());
  if (attributes == DirectoryAttributes::named && !addAttributes(signer, directories)) {
    return std::unexpected("the signature's attributes cannot be made");
  }
  const ByteView content = directories.front().bytes();
  const BioHandle bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  if (CMS_final(cms.get(), bio.get(), nullptr, flags) != 1) return std::unexpected("the identity cannot sign");
  return derOf(cms.get());
}

}  // namespace platform::codesigning
