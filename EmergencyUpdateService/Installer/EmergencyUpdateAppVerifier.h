#pragma once

#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/SecCode.h"
#include "Platform/URL.h"

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

/// Decides whether a disk image or an application carries a valid signature of the maker's own Developer ID, optionally
/// of at least a given version. Stateless; any thread; blocks it while everything that is signed is read.
class EmergencyUpdateAppVerifier {
 public:
  EmergencyUpdateAppVerifier(EmergencyUpdateServiceLogger logger, const platform::CodeSecurity& codeSecurity)
      : logger_(logger), codeSecurity_(codeSecurity) {}

  /// Whether the code is valid and meets the requirement; a failure leaves one `error` record that ends with the tag.
  /// An absent or empty minimum sets no condition on the version.
  [[nodiscard]] bool verify(const platform::URL& codeAt, const std::optional<std::string>& minimumBundleVersion,
                            std::string_view tag) const;

  /// The requirement's text. The version goes in as it is, quotes and all: it is the installed application's own.
  static std::string requirementText(const std::optional<std::string>& minimumBundleVersion);

 private:
  EmergencyUpdateServiceLogger logger_;
  const platform::CodeSecurity& codeSecurity_;
};

}  // namespace corvane
