#include "CodeSignature/PosixCodeSecurity.h"

#include "CodeSignature/InputFile.h"
#include "CodeSignature/Requirement.h"
#include "CodeSignature/StaticCode.h"

#include <cerrno>

#include <fcntl.h>

namespace platform::codesignature {

Anchors PosixCodeSecurity::installedAnchors(const PathMapper& machinePath) {
  constexpr std::string_view anchorsPath = "/System/Library/Security/anchors.pem";
  constexpr std::uint64_t maximumSize = std::uint64_t{4} << 20U;
  const auto file = InputFile::open(AT_FDCWD, machinePath(anchorsPath), InputFile::Links::follow);
  if (!file && file.error().status == statusOfErrno(ENOENT)) return Anchors::platformDefault();
  const auto contents = file ? file->contents(maximumSize) : Result<Bytes>(Bytes());
  return contents ? Anchors::fromPEM(textOf(*contents)).value_or(Anchors()) : Anchors();
}

std::expected<SecRequirement, OSStatus> PosixCodeSecurity::requirement(std::string_view text) const {
  auto compiled = compileRequirement(text);
  if (!compiled) return std::unexpected(OSStatus{errSecCSReqInvalid});
  return SecRequirement(std::move(*compiled));
}

std::expected<SecStaticCode, OSStatus> PosixCodeSecurity::staticCode(const URL& url) const {
  if (!url.isFileURL()) return std::unexpected(OSStatus{errSecCSStaticCodeNotFound});
  auto code = StaticCode::open(machinePath_(url.path()));
  if (!code) return std::unexpected(code.error().status);
  return SecStaticCode(std::move(*code));
}

SecCodeValidity PosixCodeSecurity::checkValidity(const SecStaticCode& code, const SecRequirement* requirement) const {
  auto result = code.code().check(requirement == nullptr ? nullptr : &requirement->expression(), anchors_);
  if (result) return {};
  auto& [status, userInfo] = result.error();
  return {status, NSError(NSOSStatusErrorDomain, status, std::move(userInfo))};
}

}  // namespace platform::codesignature
