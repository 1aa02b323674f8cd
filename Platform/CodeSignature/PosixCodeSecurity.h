#pragma once

#include "CodeSignature/Certificate.h"
#include "Platform/SecCode.h"

#include <functional>
#include <string>
#include <string_view>

namespace platform::codesignature {

/// The code-signing facility over the files of this machine. Stateless but for what it is made with; any thread.
class PosixCodeSecurity : public CodeSecurity {
 public:
  /// Where a Mac path lies on this machine.
  using PathMapper = std::function<std::string(std::string_view macPath)>;

  PosixCodeSecurity(PathMapper machinePath, Anchors anchors)
      : machinePath_(std::move(machinePath)), anchors_(std::move(anchors)) {}

  /// The anchors a machine is set up with: the certificates of /System/Library/Security/anchors.pem when that file
  /// exists, else the vendor's own root. A file without a certificate anchors nothing.
  [[nodiscard]] static Anchors installedAnchors(const PathMapper& machinePath);

  [[nodiscard]] std::expected<SecRequirement, OSStatus> requirement(std::string_view text) const override;
  [[nodiscard]] std::expected<SecStaticCode, OSStatus> staticCode(const URL& url) const override;
  [[nodiscard]] SecCodeValidity checkValidity(const SecStaticCode& code,
                                              const SecRequirement* requirement) const override;

 private:
  PathMapper machinePath_;
  Anchors anchors_;
};

}  // namespace platform::codesignature
