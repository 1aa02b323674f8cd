#include "Installer/EmergencyUpdateAppVerifier.h"

#include "Errors/AnyError.h"

namespace corvane {
namespace {

/// The platform vendor's chain; its Developer ID intermediate and application markers; the maker's team.
constexpr std::string_view baseRequirement =
    "    anchor apple generic\n"
    "    and certificate 1[field.1.2.840.113635.100.6.2.6]\n"
    "    and certificate leaf[field.1.2.840.113635.100.6.1.13]\n"
    "    and certificate leaf[subject.OU] = \"K4TQ9Z7M2P\"";
static_assert(baseRequirement.size() == 188);

constexpr std::string_view versionClausePrefix = "    and info [CFBundleVersion] >= \"";
static_assert(versionClausePrefix.size() == 35);

constexpr const char* function = "verify(codeAt:minimumBundleVersion:tag:)";

}  // namespace

std::string EmergencyUpdateAppVerifier::requirementText(const std::optional<std::string>& minimumBundleVersion) {
  std::string text(baseRequirement);
  if (minimumBundleVersion && !minimumBundleVersion->empty()) {
    text.append(versionClausePrefix).append(*minimumBundleVersion).append("\"");
  }
  return text;
}

bool EmergencyUpdateAppVerifier::verify(const platform::URL& codeAt,
                                        const std::optional<std::string>& minimumBundleVersion,
                                        std::string_view tag) const {
  const auto code = codeSecurity_.staticCode(codeAt);
  if (!code) {
    logger_.error({"Can't instantiate SecStaticCode with given URL ({})", tag}, at(function));
    return false;
  }
  const auto requirement = codeSecurity_.requirement(requirementText(minimumBundleVersion));
  if (!requirement) {
    logger_.error({"Can't instantiate SecRequirement with given requirementsText ({})", tag}, at(function));
    return false;
  }
  const auto validity = codeSecurity_.checkValidity(*code, &*requirement);
  if (validity.status == platform::errSecSuccess) return true;
  if (validity.error) {
    logger_.error({"App verification failed, status={}, error={} ({})", validity.status,
                   sanitizedDescription(*validity.error), tag},
                  at(function));
  } else {
    logger_.error({"App verification failed with unknown error ({})", tag}, at(function));
  }
  return false;
}

}  // namespace corvane
