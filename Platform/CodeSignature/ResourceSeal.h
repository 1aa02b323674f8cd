#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/Digest.h"
#include "CodeSignature/Failure.h"
#include "CodeSignature/ResourceRules.h"

#include <map>
#include <string>

namespace platform::codesignature {

/// What a seal says of one path.
struct SealedResource {
  enum class Kind { file, link, nestedCode };
  Kind kind = Kind::file;
  std::map<HashType, Bytes> digests;  ///< of a file
  std::string linkTarget;             ///< of a link: its text
  std::string requirement;            ///< of nested code: what it must meet
  bool isOptional = false;
};

/// A bundle's `CodeResources`: its rules and what it seals, by path below the sealed root. Version 2 counts alone where
/// it is there; version 1 knows neither links nor nested code.
struct ResourceSeal {
  static constexpr std::uint64_t maximumSize = std::uint64_t{64} << 20U;

  /// errSecCSBadDictionaryFormat when it is no property list, errSecCSResourcesInvalid for what does not belong there.
  static Result<ResourceSeal> parse(ByteView bytes);

  int version;
  ResourceRules rules;
  std::map<std::string, SealedResource> resources;
};

}  // namespace platform::codesignature
