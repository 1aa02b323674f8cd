#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/Certificate.h"
#include "CodeSignature/Requirement.h"
#include "Platform/PropertyList.h"

#include <cstdint>
#include <string_view>

namespace platform::codesignature {

/// What a requirement is asked about. A null dictionary has no keys.
struct RequirementSubject {
  const CertificateChain& chain;
  const Anchors& anchors;
  std::string_view identifier;
  Bytes cdhash;
  std::uint8_t platformNumber = 0;
  const PropertyList* infoPlist = nullptr;
  const PropertyList* entitlements = nullptr;
};

[[nodiscard]] bool meets(const RequirementSubject& subject, const RequirementExpression& requirement);

/// The platform's numeric comparison of texts, by UTF-16 unit: where both have a digit, the two runs of digits compare
/// as numbers, of any length; otherwise units compare, and a text that ends first is the lesser. So "1.10" is greater
/// than "1.9", and "1.2" less than "1.2.0". Negative, zero or positive.
[[nodiscard]] int compareNumerically(std::string_view left, std::string_view right);

}  // namespace platform::codesignature
