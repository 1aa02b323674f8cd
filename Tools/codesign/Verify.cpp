#include "codesign/Verify.h"

#include "CodeSignature/PosixCodeSecurity.h"
#include "CodeSignature/Requirement.h"
#include "codesign/CommandLinePath.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include <fmt/format.h>

namespace codesigntool {
namespace {

using platform::OSStatus;
using platform::codesignature::PosixCodeSecurity;

enum ExitStatus { valid = 0, invalid = 1, usage = 2, requirementFailed = 3 };

struct Reason {
  OSStatus status;
  std::string_view text;
};
constexpr std::array<Reason, 18> reasons = {
    {{platform::errSecCSStaticCodeNotFound, "no such file"},
     {platform::errSecCSUnsigned, "code object is not signed at all"},
     {platform::errSecCSSignatureFailed, "invalid signature (code or signature have been modified)"},
     {platform::errSecCSSignatureInvalid, "invalid signature format"},
     {platform::errSecCSSignatureUnsupported, "unsupported signature version"},
     {platform::errSecCSBadResource, "a sealed resource is missing or invalid"},
     {platform::errSecCSResourcesNotFound, "code has no resources but signature indicates they must be present"},
     {platform::errSecCSResourceDirectoryFailed, "invalid resource directory (directory or signature modified)"},
     {platform::errSecCSInfoPlistFailed, "invalid Info.plist (plist or signature have been modified)"},
     {platform::errSecCSReqFailed, "code failed to satisfy specified code requirement(s)"},
     {platform::errSecCSBadNestedCode, "nested code is modified or invalid"},
     {platform::errSecCSBadBundleFormat, "bundle format unrecognized, invalid, or unsuitable"},
     {platform::errSecCSBadObjectFormat, "object file format unrecognized, invalid, or unsuitable"},
     {platform::errSecCSBadDiskImageFormat, "disk image format unrecognized, invalid, or unsuitable"},
     {platform::errSecCSUnsealedAppRoot, "unsealed contents present in the bundle root"},
     {platform::errSecCSBadTeamIdentifier, "invalid or inappropriate team identifier"},
     {platform::CSSMERR_TP_NOT_TRUSTED, "certificate is not trusted"},
     {platform::CSSMERR_TP_CERT_EXPIRED, "certificate expired"}}};

std::string_view reasonFor(OSStatus status) {
  for (const auto& reason : reasons) {
    if (reason.status == status) return reason.text;
  }
  return "code is not valid";
}

/// What the error names, the first file of each kind, for the end of the line: no name may begin another.
std::string culprits(const std::optional<platform::NSError>& error) {
  std::string text;
  if (!error) return text;
  for (const auto& [key, value] : error->userInfo()) {
    if (const auto* names = std::get_if<std::string>(&value)) {
      text += fmt::format("; {}: {}", key, names->substr(0, names->find('\n')));
    }
  }
  std::ranges::replace_if(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
  return text;
}

int report(const VerifyOptions& options, OSStatus status, const std::string& more) {
  if (options.isVerbose && status == platform::errSecSuccess) fmt::print(stderr, "{}: valid on disk\n", options.path);
  if (options.isVerbose && status != platform::errSecSuccess) {
    fmt::print(stderr, "{}: {} ({}){}\n", options.path, reasonFor(status), status, more);
  }
  if (status == platform::errSecSuccess) return valid;
  return status == platform::errSecCSReqFailed ? requirementFailed : invalid;
}

}  // namespace

int verify(const VerifyOptions& options) {
  std::optional<platform::SecRequirement> requirement;
  if (options.requirement) {
    // The option's own form has an "=" before the text, as in -R='anchor apple'.
    std::string_view text = *options.requirement;
    text.remove_prefix(std::min(text.find_first_not_of('='), text.size()));
    auto compiled = platform::codesignature::compileRequirement(text);
    if (!compiled) {
      fmt::print(stderr, "codesign: invalid requirement: {}\n", compiled.error());
      return usage;
    }
    requirement.emplace(std::move(*compiled));
  }
  const PosixCodeSecurity::PathMapper machinePath = [](std::string_view path) {
    return machineFile(std::string(path));
  };
  const PosixCodeSecurity security(machinePath, PosixCodeSecurity::installedAnchors(machinePath));
  const auto code = security.staticCode(platform::URL::fileURL(absolutePath(options.path)));
  if (!code) return report(options, code.error(), {});
  auto validity = security.checkValidity(*code, requirement ? &*requirement : nullptr);
  if (validity.status == platform::errSecCSReqFailed) {
    // The requirement is judged before the resources are looked at: is the code valid otherwise?
    auto without = security.checkValidity(*code, nullptr);
    if (without.status != platform::errSecSuccess) validity = std::move(without);
  }
  return report(options, validity.status, culprits(validity.error));
}

}  // namespace codesigntool
