#include "CodeSignature/ResourceSeal.h"

#include "Platform/PropertyList.h"

#include <array>
#include <optional>
#include <string_view>

namespace platform::codesignature {
namespace {

struct DigestKey {
  std::string_view key;
  HashType type;
};
constexpr std::array<DigestKey, 4> digestKeys = {{{"hash", HashType::sha1},
                                                  {"hash2", HashType::sha256},
                                                  {"hash3", HashType::sha256Truncated},
                                                  {"hash4", HashType::sha384}}};

const std::string* text(const PropertyList& entry, std::string_view key) {
  const PropertyList* value = entry[key];
  return value == nullptr ? nullptr : value->string();
}

/// False for a digest that is no data or not of its algorithm's length.
bool readDigests(const PropertyList& entry, SealedResource& resource) {
  for (const auto& [key, type] : digestKeys) {
    const PropertyList* value = entry[key];
    if (value == nullptr) continue;
    const auto* data = value->as<PropertyList::Data>();
    if (data == nullptr || data->size() != digestSize(type)) return false;
    resource.digests.emplace(type, *data);
  }
  return true;
}

std::optional<SealedResource> resourceOf(const PropertyList& entry) {
  SealedResource resource;
  if (const auto* data = entry.as<PropertyList::Data>()) {
    if (data->size() != digestSize(HashType::sha1)) return std::nullopt;
    resource.digests.emplace(HashType::sha1, *data);
    return resource;
  }
  if (entry.dictionary() == nullptr || !readDigests(entry, resource)) return std::nullopt;
  if (const PropertyList* value = entry["optional"]) {
    const bool* boolean = value->as<bool>();
    resource.isOptional = boolean != nullptr && *boolean;
  }
  if (const std::string* requirement = text(entry, "requirement")) {
    resource.kind = SealedResource::Kind::nestedCode;
    resource.requirement = *requirement;
  } else if (const std::string* target = text(entry, "symlink")) {
    resource.kind = SealedResource::Kind::link;
    resource.linkTarget = *target;
  } else if (resource.digests.empty()) {
    return std::nullopt;
  }
  return resource;
}

}  // namespace

Result<ResourceSeal> ResourceSeal::parse(ByteView bytes) {
  const auto plist = PropertyList::parse(textOf(bytes));
  if (!plist) return failed(errSecCSBadDictionaryFormat);
  const bool isSecond = (*plist)["files2"] != nullptr;
  const PropertyList* files = (*plist)[isSecond ? "files2" : "files"];
  const PropertyList* rules = (*plist)[isSecond ? "rules2" : "rules"];
  if (files == nullptr || files->dictionary() == nullptr || rules == nullptr) return failed(errSecCSResourcesInvalid);
  auto parsedRules = ResourceRules::parse(*rules);
  if (!parsedRules) return std::unexpected(parsedRules.error());
  ResourceSeal seal{isSecond ? 2 : 1, std::move(*parsedRules), {}};
  for (const auto& [path, entry] : *files->dictionary()) {
    auto resource = resourceOf(entry);
    if (!resource) return failed(errSecCSResourcesInvalid);
    seal.resources.emplace_hint(seal.resources.end(), path, std::move(*resource));
  }
  return seal;
}

}  // namespace platform::codesignature
