#include "CodeSignature/Digest.h"
#include "CodeSignature/StaticCode.h"
#include "FuzzMaker.h"
#include "FuzzSupport.h"

#include <algorithm>
#include <array>

namespace {

using namespace platform::codesignature;

/// SHA-256 of all code the maker ever signed: of the image, and of the slices of the Mach-O files in the corpus.
constexpr std::array<std::string_view, 3> signedCode = {
    "09ecb6ebc8bcefc733f6f2ec44f791abeed6a99edf0cc31519637898aebd52d8",
    "3b95bc3667a6d2d76193689270a78d7c9ceba928eb97dee4f01bdd4bbddaa7d9",
    "a7fe11a7dc72fb564345bb2c83d41f02d09ec79d4ad1883de647d2dfe2b6077c"};

bool isMakers(const InputFile& file, const SignedImage& image) {
  const auto hash = digest(HashType::sha256, file, image.base, image.codeLength);
  return hash && std::ranges::find(signedCode, fuzz::hex(*hash)) != signedCode.end();
}

}  // namespace

/// A file that may be a disk image or a Mach-O file: trailer, headers and load commands, and the signature they lead
/// to. Nothing but what the maker signed may pass for it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  static const auto requirement = compileRequirement(fuzz::makersRequirement).value();
  static const auto anchors = Anchors::fromPEM(fuzz::makersRoot).value();
  file.write(fuzz::textOf(data, size));
  const auto code = StaticCode::open(file.path());
  if (!code || !(*code)->check(requirement.get(), anchors)) return 0;
  for (const auto& image : (*code)->images()) fuzz::require(isMakers((*code)->executable(), image));
  return 0;
}
