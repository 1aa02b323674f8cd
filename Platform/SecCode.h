#pragma once

#include "Platform/NSError.h"
#include "Platform/URL.h"

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string_view>

namespace platform {

/// The result codes of the code-signing facility (CSCommon.h, SecBase.h, cssmerr.h); I/O errors are 100000 + errno.
using OSStatus = std::int32_t;
enum CodeSigningStatus : OSStatus {
  errSecSuccess = 0,
  errSecUnknownFormat = -25257,
  errSecCSBadTeamIdentifier = -66997,
  errSecCSBadDiskImageFormat = -67001,
  errSecCSUnsealedFrameworkRoot = -67008,
  errSecCSBadFrameworkVersion = -67009,
  errSecCSBadMainExecutable = -67010,
  errSecCSDSStoreSymlink = -67012,
  errSecCSUnsealedAppRoot = -67014,
  errSecCSRegularFile = -67015,
  errSecCSResourceNotSupported = -67016,
  errSecCSBadNestedCode = -67021,
  errSecCSResourceDirectoryFailed = -67023,
  errSecCSBadBundleFormat = -67028,
  errSecCSInfoPlistFailed = -67030,
  errSecCSSignatureInvalid = -67045,
  errSecCSBadObjectFormat = -67049,
  errSecCSReqFailed = -67050,
  errSecCSReqInvalid = -67052,
  errSecCSResourceRulesInvalid = -67053,
  errSecCSBadResource = -67054,
  errSecCSResourcesInvalid = -67055,
  errSecCSResourcesNotFound = -67056,
  errSecCSBadDictionaryFormat = -67058,
  errSecCSSignatureUnsupported = -67059,
  errSecCSSignatureFailed = -67061,
  errSecCSUnsigned = -67062,
  errSecCSStaticCodeNotFound = -67068,
  CSSMERR_APPLETP_UNKNOWN_CRITICAL_EXTEN = -2147408895,
  CSSMERR_APPLETP_INVALID_KEY_USAGE = -2147408890,
  CSSMERR_APPLETP_INVALID_EXTENDED_KEY_USAGE = -2147408889,
  CSSMERR_TP_INVALID_CERTIFICATE = -2147409643,
  CSSMERR_TP_NOT_TRUSTED = -2147409622,
  CSSMERR_TP_CERT_EXPIRED = -2147409654,
  CSSMERR_TP_CERT_NOT_VALID_YET = -2147409653,
};

namespace codesignature {
class RequirementExpression;
class StaticCode;
}  // namespace codesignature

/// A compiled code requirement: what a signer must be. Immutable, shared by its copies; any thread.
class SecRequirement {
 public:
  explicit SecRequirement(std::shared_ptr<const codesignature::RequirementExpression> expression)
      : expression_(std::move(expression)) {}
  [[nodiscard]] const codesignature::RequirementExpression& expression() const { return *expression_; }

 private:
  std::shared_ptr<const codesignature::RequirementExpression> expression_;
};

/// Code on disk: a disk image, a Mach-O executable, a bundle or any other file. The files it holds open stay the ones
/// that are checked, whatever happens to their paths. Shared by its copies; any thread.
class SecStaticCode {
 public:
  explicit SecStaticCode(std::shared_ptr<const codesignature::StaticCode> code) : code_(std::move(code)) {}
  [[nodiscard]] const codesignature::StaticCode& code() const { return *code_; }

 private:
  std::shared_ptr<const codesignature::StaticCode> code_;
};

/// The result of a check: errSecSuccess without an error, or a failure with an error of NSOSStatusErrorDomain whose
/// code is the status. The error's user info may name the file at fault.
struct SecCodeValidity {
  OSStatus status = errSecSuccess;
  std::optional<NSError> error;
};

/// The platform's code-signing facility. Blocks the caller while it reads the code; any thread.
class CodeSecurity {
 public:
  virtual ~CodeSecurity() = default;

  /// Compiles a text of the requirement language; errSecCSReqInvalid when it does not compile.
  [[nodiscard]] virtual std::expected<SecRequirement, OSStatus> requirement(std::string_view text) const = 0;

  /// The code a file URL names; errSecCSStaticCodeNotFound when nothing is there, and what of its frame cannot be read.
  [[nodiscard]] virtual std::expected<SecStaticCode, OSStatus> staticCode(const URL& url) const = 0;

  /// Whether the code's signature is intact and, where one is given, meets the requirement.
  [[nodiscard]] virtual SecCodeValidity checkValidity(const SecStaticCode& code,
                                                      const SecRequirement* requirement) const = 0;
};

}  // namespace platform
