#include "codesign/Sign.h"

#include "CodeSignature/InputFile.h"
#include "CodeSigning/CodeSigner.h"
#include "codesign/CommandLinePath.h"

#include <cstdio>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>

namespace codesigntool {
namespace {

using platform::codesignature::InputFile;
using platform::codesigning::Identity;
using platform::codesigning::Signed;

Signed<Identity> identityAt(const std::string& path) {
  constexpr std::uint64_t maximumSize = std::uint64_t{1} << 20U;
  const auto file = InputFile::open(AT_FDCWD, machineFile(path), InputFile::Links::follow);
  const auto contents = file ? file->contents(maximumSize) : std::unexpected(file.error());
  if (!contents) return std::unexpected(path + ": no identity found");
  return Identity::fromPEM(platform::codesignature::textOf(*contents));
}

int failure(const std::string& message) {
  fmt::print(stderr, "codesign: {}\n", message);
  return 1;
}

}  // namespace

int sign(const SignOptions& options) {
  platform::codesigning::SigningRequest request;
  request.identifier = options.identifier;
  request.replacesSignature = options.isForced;
  std::optional<Identity> identity;
  if (options.identity != "-") {
    auto found = identityAt(options.identity);
    if (!found) return failure(found.error());
    request.identity = &identity.emplace(std::move(*found));
  }
  const auto done = signCode(machineFile(options.path), request);
  return done ? 0 : failure(done.error());
}

}  // namespace codesigntool
