#include "CodeSignature/SignatureFolder.h"

#include "CodeSignature/DirectoryListing.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace platform::codesignature {
namespace {

struct SlotFile {
  std::uint32_t slotNumber;
  const char* name;
};

// The alternates' names are the platform's own.
constexpr std::array<SlotFile, 16> slotFiles = {{{slot::codeDirectory, "CodeDirectory"},
                                                 {slot::requirements, "CodeRequirements"},
                                                 {slot::topDirectory, "CodeTopDirectory"},
                                                 {slot::entitlements, "CodeEntitlements"},
                                                 {slot::repSpecific, "CodeRepSpecific"},
                                                 {7, "CodeEntitlementDER"},
                                                 {8, "LaunchConstraintSelf"},
                                                 {9, "LaunchConstraintParent"},
                                                 {10, "LaunchConstraintResponsible"},
                                                 {11, "LibraryConstraint"},
                                                 {slot::firstAlternate, "CodeRequirements-1"},
                                                 {slot::firstAlternate + 1, "CodeRequirements-2"},
                                                 {slot::firstAlternate + 2, "CodeRequirements-3"},
                                                 {slot::firstAlternate + 3, "CodeRequirements-4"},
                                                 {slot::firstAlternate + 4, "CodeRequirements-5"},
                                                 {slot::cms, "CodeSignature"}}};

bool has(const SignatureParts& parts, std::uint32_t slotNumber) {
  if (slotNumber == slot::cms) return !parts.cms.empty();
  if (slotNumber == slot::codeDirectory) return !parts.codeDirectories.empty();
  if (slotNumber >= slot::firstAlternate) return parts.codeDirectories.size() > slotNumber - slot::firstAlternate + 1;
  return parts.components.contains(slotNumber);
}

}  // namespace

Result<std::optional<SignatureFolder>> SignatureFolder::open(int directory) {
  posix::FileDescriptor descriptor(::openat(directory, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!descriptor && errno == ENOENT) return std::nullopt;
  if (!descriptor) return failed(errSecCSSignatureFailed);
  SignatureFolder folder(std::move(descriptor));
  if (auto known = folder.checkNames(); !known) return std::unexpected(known.error());
  return folder;
}

const char* SignatureFolder::fileName(std::uint32_t slotNumber) {
  const auto* found = std::ranges::find(slotFiles, slotNumber, &SlotFile::slotNumber);
  return found == slotFiles.end() ? nullptr : found->name;
}

Result<void> SignatureFolder::checkNames() const {
  const auto entries = directoryEntries(descriptor_.get());
  if (!entries) return std::unexpected(entries.error());
  for (const auto& entry : *entries) {
    const auto isNamed = [&entry](const SlotFile& known) { return entry.name == known.name; };
    if (entry.name != sealName && std::ranges::none_of(slotFiles, isNamed)) {
      return failed(errSecCSUnsealedAppRoot, kSecCFErrorResourceAdded, std::string(name) + "/" + entry.name);
    }
  }
  return {};
}

Result<std::optional<Bytes>> SignatureFolder::file(const char* fileName) const {
  auto opened = InputFile::open(descriptor_.get(), fileName, InputFile::Links::refuse);
  if (!opened && opened.error().status == statusOfErrno(ENOENT)) return std::nullopt;
  if (!opened) return std::unexpected(opened.error());
  auto contents = opened->contents(maximumSignatureSize);
  if (!contents) return std::unexpected(contents.error());
  return std::move(*contents);
}

Result<std::optional<Bytes>> SignatureFolder::seal() const {
  return file(sealName);
}

Result<SignatureParts> SignatureFolder::parts() const {
  SignatureParts parts;
  bool alternatesGoOn = true;
  for (const auto& known : slotFiles) {
    auto contents = file(known.name);
    if (!contents) return std::unexpected(contents.error());
    const bool isAlternate = known.slotNumber >= slot::firstAlternate && known.slotNumber != slot::cms;
    if (isAlternate) alternatesGoOn = alternatesGoOn && contents->has_value();
    if (!contents->has_value()) continue;
    if (known.slotNumber == slot::cms) {
      parts.cms = std::move(**contents);
    } else if (known.slotNumber == slot::codeDirectory || (isAlternate && alternatesGoOn)) {
      parts.codeDirectories.push_back(std::move(**contents));
    } else if (!isAlternate) {
      parts.components.emplace(known.slotNumber, std::move(**contents));
    }
  }
  return parts;
}

bool SignatureFolder::addsTo(const SignatureParts& embedded) const {
  return std::ranges::any_of(slotFiles, [&](const SlotFile& known) {
    struct stat status = {};
    return !has(embedded, known.slotNumber) &&
           ::fstatat(descriptor_.get(), known.name, &status, AT_SYMLINK_NOFOLLOW) == 0;
  });
}

}  // namespace platform::codesignature
