#include "CodeSignature/CmsAttributes.h"

#include "CodeSignature/CmsSignature.h"
#include "CodeSignature/OpenSSLHandle.h"
#include "Platform/PropertyList.h"

#include <algorithm>
#include <vector>

namespace platform::codesignature {
namespace {

struct Attribute {
  enum class Presence { absent, single, ambiguous };
  Presence presence;
  X509_ATTRIBUTE* value;
};

Attribute signedAttribute(CMS_SignerInfo* signer, const char* objectIdentifier) {
  const ObjectHandle object(OBJ_txt2obj(objectIdentifier, 1));
  const int index = CMS_signed_get_attr_by_OBJ(signer, object.get(), -1);
  if (index < 0) return {Attribute::Presence::absent, nullptr};
  if (CMS_signed_get_attr_by_OBJ(signer, object.get(), index) >= 0) return {Attribute::Presence::ambiguous, nullptr};
  return {Attribute::Presence::single, CMS_signed_get_attr(signer, index)};
}

std::vector<const CodeDirectory*> inOrderOfHashType(std::span<const CodeDirectory> directories) {
  std::vector<const CodeDirectory*> sorted;
  for (const auto& directory : directories) sorted.push_back(&directory);
  std::ranges::sort(sorted, {}, [](const CodeDirectory* directory) { return directory->hashType(); });
  return sorted;
}

/// The first list: a property list with all cdhashes, in the order of their hash types.
bool listMatches(X509_ATTRIBUTE* attribute, std::span<const CodeDirectory> directories) {
  const auto* text =
      static_cast<const ASN1_STRING*>(X509_ATTRIBUTE_get0_data(attribute, 0, V_ASN1_OCTET_STRING, nullptr));
  if (text == nullptr || X509_ATTRIBUTE_count(attribute) != 1) return false;
  const auto plist = PropertyList::parse(
      {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)), static_cast<std::size_t>(ASN1_STRING_length(text))});
  if (!plist) return false;
  PropertyList::Array expected;
  for (const auto* directory : inOrderOfHashType(directories)) expected.emplace_back(directory->cdhash());
  const PropertyList* hashes = (*plist)["cdhashes"];
  return hashes != nullptr && *hashes == PropertyList(std::move(expected));
}

/// The hash algorithm and the digest of one entry of the second list: SEQUENCE { OBJECT IDENTIFIER, OCTET STRING }.
struct NamedDigest {
  int algorithm;
  Bytes digest;
  auto operator<=>(const NamedDigest&) const = default;
};

std::optional<NamedDigest> namedDigest(const ASN1_TYPE* value) {
  if (value == nullptr || value->type != V_ASN1_SEQUENCE) return std::nullopt;
  const unsigned char* der = ASN1_STRING_get0_data(value->value.sequence);
  const OpenSSLHandle<ASN1_SEQUENCE_ANY, [](ASN1_SEQUENCE_ANY* items) { sk_ASN1_TYPE_pop_free(items, ASN1_TYPE_free); }>
      items(d2i_ASN1_SEQUENCE_ANY(nullptr, &der, ASN1_STRING_length(value->value.sequence)));
  if (!items || sk_ASN1_TYPE_num(items.get()) != 2) return std::nullopt;
  const ASN1_TYPE* name = sk_ASN1_TYPE_value(items.get(), 0);
  const ASN1_TYPE* hash = sk_ASN1_TYPE_value(items.get(), 1);
  if (name->type != V_ASN1_OBJECT || hash->type != V_ASN1_OCTET_STRING) return std::nullopt;
  const unsigned char* data = ASN1_STRING_get0_data(hash->value.octet_string);
  return NamedDigest{OBJ_obj2nid(name->value.object), Bytes(data, data + ASN1_STRING_length(hash->value.octet_string))};
}

/// The second list: a set with the uncut hash of every directory under the name of its algorithm.
bool setMatches(X509_ATTRIBUTE* attribute, std::span<const CodeDirectory> directories) {
  std::vector<NamedDigest> found;
  for (int i = 0; i < X509_ATTRIBUTE_count(attribute); ++i) {
    auto named = namedDigest(X509_ATTRIBUTE_get0_type(attribute, i));
    if (!named) return false;
    found.push_back(std::move(*named));
  }
  std::vector<NamedDigest> expected;
  for (const auto& directory : directories) {
    const HashType type = directory.hashType();
    expected.push_back({EVP_MD_get_type(algorithm(type)), uncutDigest(type, directory.bytes())});
  }
  std::ranges::sort(found);
  std::ranges::sort(expected);
  return found == expected;
}

}  // namespace

bool namesAll(CMS_SignerInfo_st* signer, std::span<const CodeDirectory> directories) {
  using Presence = Attribute::Presence;
  const Attribute list = signedAttribute(signer, cdhashListAttribute);
  const Attribute set = signedAttribute(signer, cdhashSetAttribute);
  if (list.presence == Presence::ambiguous || set.presence == Presence::ambiguous) return false;
  if (list.presence == Presence::absent && set.presence == Presence::absent) return directories.size() == 1;
  if (list.presence == Presence::single && !listMatches(list.value, directories)) return false;
  return set.presence == Presence::absent || setMatches(set.value, directories);
}

}  // namespace platform::codesignature
