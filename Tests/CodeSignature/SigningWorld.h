#pragma once

#include "CodeSignature/Blob.h"
#include "CodeSignature/Certificate.h"
#include "CodeSigning/Identity.h"
#include "CodeSigning/SignatureBuilder.h"
#include "Platform/SecCode.h"
#include "Rehearsal/SigningIdentity.h"

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace codesignature_tests {

/// The requirement the maker's code is held against.
inline constexpr const char* makersRequirement =
    "anchor apple generic and certificate 1[field.1.2.840.113635.100.6.2.6]\n"
    "and certificate leaf[field.1.2.840.113635.100.6.1.13] and certificate leaf[subject.OU] = \"K4TQ9Z7M2P\"";

/// A signer together with the root above it.
struct Maker {
  platform::codesigning::Identity identity;
  platform::codesignature::Anchors anchors;
};
[[nodiscard]] Maker makerLike(const rehearsal::SigningIdentityPlan& plan);

/// A folder of code to sign, to tamper with and to check, with one maker whose root is the only anchor.
class SigningWorld {
 public:
  SigningWorld();
  SigningWorld(const SigningWorld&) = delete;
  SigningWorld& operator=(const SigningWorld&) = delete;
  ~SigningWorld();

  [[nodiscard]] static const Maker& maker();
  [[nodiscard]] std::string path(const std::string& name) const { return (folder_ / name).string(); }

  /// Unsigned code to begin with. A bundle has resources, a link, a nested application and a versioned framework.
  std::string image(const std::string& name = "Orvik.dmg") const;
  std::string bundle(const std::string& name = "Orvik.app") const;
  std::string smallBundle(const std::string& path, const std::string& identifier, std::string_view executable) const;
  std::string framework(const std::string& path) const;
  std::string machO(const std::string& name = "orvik", std::uint32_t cpuType = 0x01000007,
                    std::uint32_t infoPlistSize = 0) const;

  [[nodiscard]] platform::codesigning::SigningRequest request() const;
  void sign(const std::string& path) const { sign(path, request()); }
  void sign(const std::string& path, const platform::codesigning::SigningRequest& request) const;

  /// The status of making a code object and checking it; an empty requirement checks without one.
  [[nodiscard]] platform::OSStatus check(const std::string& path,
                                         std::string_view requirement = makersRequirement) const {
    return check(path, requirement, maker().anchors);
  }
  [[nodiscard]] platform::OSStatus check(const std::string& path, std::string_view requirement,
                                         const platform::codesignature::Anchors& anchors) const;

 private:
  std::filesystem::path folder_;
};

void write(const std::string& path, std::string_view bytes);
[[nodiscard]] std::string read(const std::string& path);
void append(const std::string& path, std::string_view bytes);
/// Changes one byte, counted from the end when `offset` is negative.
void flip(const std::string& path, std::int64_t offset);
/// Changes the first byte of the first occurrence of a text.
void flipAt(const std::string& path, std::string_view text);

/// Puts a signature into a signed image in place of its own; all lengths agree again afterwards.
void replaceSignature(const std::string& image, const platform::codesignature::Bytes& superBlob);
[[nodiscard]] platform::codesignature::SignatureParts signatureOf(const std::string& image);
/// Where an image's signature begins.
[[nodiscard]] std::uint64_t codeEnd(const std::string& image);

[[nodiscard]] std::string fatOf(std::initializer_list<std::string> slicePaths);

}  // namespace codesignature_tests
