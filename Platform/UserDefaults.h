#pragma once

#include "Platform/PropertyList.h"

#include <memory>
#include <optional>
#include <string_view>

namespace platform {

/// The user defaults of one domain: property-list values by key, kept with their own kinds. Any thread.
///
/// Every call reads or writes the domain's file; there is no cache, no search list beyond the one domain, and none of
/// the platform's conversions between kinds.
class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  /// The value under `key`; absent when there is none or the domain cannot be read.
  [[nodiscard]] virtual std::optional<PropertyList> object(std::string_view key) const = 0;

  /// Stores the value, other keys kept exactly. A domain that holds something else than a property list we can read, or
  /// would grow beyond what we can read, is left alone, and nothing is stored; an empty file is an empty domain.
  /// Neither that nor a failed write is reported.
  virtual void set(const PropertyList& value, std::string_view key) = 0;
};

/// Opens the user defaults of domains.
class UserDefaultsDomains {
 public:
  virtual ~UserDefaultsDomains() = default;

  /// The domain of the main bundle: its identifier, or the process name without one.
  virtual std::shared_ptr<UserDefaults> standard() = 0;

  /// Another application's domain; null for a name that is empty or no plain file name.
  virtual std::shared_ptr<UserDefaults> suite(std::string_view name) = 0;
};

}  // namespace platform
