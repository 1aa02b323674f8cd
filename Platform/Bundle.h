#pragma once

#include "Platform/PropertyList.h"
#include "Platform/URL.h"

#include <optional>
#include <string>

namespace platform {

/// The bundle that the running executable belongs to: the `X.app` whose Contents/MacOS holds it, with the information
/// dictionary as it was when the process started. An executable outside a bundle has the folder it lies in as its URL,
/// no identifier and an empty dictionary.
struct Bundle {
  URL bundleURL;
  PropertyList::Dictionary infoDictionary;
  std::optional<std::string> bundleIdentifier;
};

}  // namespace platform
