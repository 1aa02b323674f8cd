#pragma once

#include "CodeSignature/Blob.h"
#include "CodeSignature/Failure.h"
#include "CodeSignature/InputFile.h"

#include <optional>

namespace platform::codesignature {

/// A bundle's `_CodeSignature` folder: one file for each part of the signature that has no place in the main
/// executable.
class SignatureFolder {
 public:
  static constexpr const char* name = "_CodeSignature";
  static constexpr const char* sealName = "CodeResources";

  /// The folder in the one open at `directory`; absent when it does not exist, errSecCSSignatureFailed for anything
  /// else of its name. A file in it that has no meaning is errSecCSUnsealedAppRoot.
  static Result<std::optional<SignatureFolder>> open(int directory);

  /// The file's name for a slot; null when the slot has none.
  [[nodiscard]] static const char* fileName(std::uint32_t slotNumber);

  /// The resource seal; absent when there is none.
  [[nodiscard]] Result<std::optional<Bytes>> seal() const;
  /// The signature that lies in the folder; without code directories when there is none.
  [[nodiscard]] Result<SignatureParts> parts() const;
  /// Whether a file stands for a slot the executable's own signature does not have: no signing tool mixes them.
  [[nodiscard]] bool addsTo(const SignatureParts& embedded) const;

 private:
  explicit SignatureFolder(posix::FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}
  [[nodiscard]] Result<void> checkNames() const;
  [[nodiscard]] Result<std::optional<Bytes>> file(const char* fileName) const;
  posix::FileDescriptor descriptor_;
};

}  // namespace platform::codesignature
