#include "CodeSignature/StaticCode.h"

#include "CodeSignature/DiskImage.h"
#include "CodeSignature/MachO.h"
#include "CodeSignature/SignatureFolder.h"

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>

namespace platform::codesignature {
namespace {

/// `X` when the path is `X/Contents/MacOS/<name>`.
std::optional<std::filesystem::path> enclosingBundle(const std::filesystem::path& path) {
  const auto folder = path.parent_path();
  if (folder.filename() != "MacOS" || folder.parent_path().filename() != "Contents") return std::nullopt;
  return folder.parent_path().parent_path();
}

Result<SignatureParts> partsOf(const InputFile& file, const MachOSlice& slice) {
  if (!slice.signature) return failed(errSecCSUnsigned);
  if (slice.signature->length > maximumSignatureSize) return failed(errSecCSSignatureInvalid);
  const auto bytes = file.bytes(slice.offset + slice.signature->offset, slice.signature->length);
  if (!bytes) return std::unexpected(bytes.error());
  const auto superBlob = SuperBlob::parse(*bytes);
  if (!superBlob) return failed(errSecCSSignatureInvalid);
  return partsOf(*superBlob);
}

/// In an executable without a bundle; genuine ones take a few hundred bytes. There may be one a slice.
constexpr std::uint64_t maximumInfoPlistSection = std::uint64_t{1} << 20U;

/// For the slots whose bytes are files of a bundle, whatever the signature itself has in their place.
void replaceComponent(SignatureParts& parts, std::uint32_t slotNumber, std::optional<Bytes> bytes) {
  parts.components.erase(slotNumber);
  if (bytes) parts.components.emplace(slotNumber, std::move(*bytes));
}

}  // namespace

Result<std::shared_ptr<const StaticCode>> StaticCode::open(const std::string& path) {
  const std::filesystem::path place = std::filesystem::path(path).lexically_normal();
  if (const auto bundle = enclosingBundle(place)) {
    auto outer = openAt(AT_FDCWD, bundle->string(), 0);
    const auto inner = InputFile::open(AT_FDCWD, place.string(), InputFile::Links::follow);
    if (outer && inner && outer->executable().isSameFile(*inner)) {
      return std::make_shared<const StaticCode>(std::move(*outer));
    }
  }
  auto code = openAt(AT_FDCWD, path, 0);
  if (!code) return std::unexpected(code.error());
  return std::make_shared<const StaticCode>(std::move(*code));
}

Result<StaticCode> StaticCode::openAt(int directory, const std::string& name, int linkFlag) {
  posix::FileDescriptor descriptor(::openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | linkFlag));
  if (!descriptor) {
    const bool isMissing = errno == ENOENT || errno == ENOTDIR;
    return failed(isMissing ? OSStatus{errSecCSStaticCodeNotFound} : statusOfErrno(errno));
  }
  struct stat status = {};
  if (::fstat(descriptor.get(), &status) != 0) return failed(statusOfErrno(errno));
  if (S_ISDIR(status.st_mode)) {
    auto path = std::filesystem::path(name);
    if (!path.has_filename()) path = path.parent_path();
    auto code = ofBundle(BundleLayout::open(std::move(descriptor), path.filename().string()));
    if (code) code->name_ = path.filename().string();
    return code;
  }
  auto file = InputFile::adopt(std::move(descriptor));
  if (!file) return std::unexpected(file.error());
  return ofFile(std::move(*file));
}

Result<StaticCode> StaticCode::ofFile(InputFile file) {
  StaticCode code;
  code.file_ = std::move(file);
  if (auto done = code.readImages(); !done) return std::unexpected(done.error());
  return code;
}

Result<StaticCode> StaticCode::ofBundle(Result<BundleLayout> layout) {
  if (!layout) return std::unexpected(layout.error());
  StaticCode code;
  code.bundle_ = std::move(*layout);
  auto done = code.readImages();
  if (done) done = code.addBundleParts();
  if (!done) return std::unexpected(done.error());
  return code;
}

/// A Mach-O header counts before a disk image's trailer, so that a file that is both is what would run.
Result<void> StaticCode::readImages() {
  const InputFile& file = executable();
  const auto head = file.bytes(0, std::min<std::uint64_t>(file.size(), 4));
  if (!head) return std::unexpected(head.error());
  if (beginsMachO(*head)) return readSlices();
  images_.emplace_back().codeLength = file.size();
  return bundle_ ? Result<void>() : readDiskImage();
}

Result<void> StaticCode::readSlices() {
  const auto slices = machOSlices(executable());
  if (!slices) return std::unexpected(slices.error());
  for (const auto& slice : *slices) {
    SignedImage image;
    image.architecture = slice.architecture();
    image.base = slice.offset;
    image.parts = partsOf(executable(), slice);
    if (slice.signature) image.codeLength = slice.signature->offset;
    if (image.parts && slice.infoPlist && !bundle_) {
      if (slice.infoPlist->length > maximumInfoPlistSection) return failed(errSecCSBadObjectFormat);
      auto bytes = executable().bytes(slice.offset + slice.infoPlist->offset, slice.infoPlist->length);
      if (!bytes) return std::unexpected(bytes.error());
      replaceComponent(*image.parts, slot::infoPlist, std::move(*bytes));
    }
    images_.push_back(std::move(image));
  }
  return {};
}

Result<void> StaticCode::readDiskImage() {
  const auto trailer = DiskImageTrailer::read(executable());
  if (!trailer) return std::unexpected(trailer.error());
  if (!trailer->has_value()) return {};
  const auto bytes = diskImageSignature(executable(), **trailer);
  if (!bytes) return std::unexpected(bytes.error());
  SignedImage& image = images_.front();
  image.isDiskImage = true;
  if (bytes->empty()) return {};
  image.codeLength = (*trailer)->signatureOffset();
  image.parts = codesignature::partsOf(*SuperBlob::parse(*bytes));
  if (image.parts) replaceComponent(*image.parts, slot::repSpecific, (*trailer)->sealedBytes());
  return {};
}

/// Info.plist and seal are files in every bundle; the rest of the signature is where the main executable has room for
/// it, else in files too.
Result<void> StaticCode::addBundleParts() {
  const auto folder = SignatureFolder::open(bundle_->sealedRoot.get());
  if (!folder) return std::unexpected(folder.error());
  std::optional<Bytes> seal;
  if (*folder) {
    auto bytes = (*folder)->seal();
    if (!bytes) return std::unexpected(bytes.error());
    seal = std::move(*bytes);
  }
  for (auto& image : images_) {
    image.isBundle = true;
    const bool isMachO = !image.architecture.empty();
    if (!isMachO && *folder) image.parts = (*folder)->parts();
    if (!image.parts) continue;
    if (isMachO && *folder && (*folder)->addsTo(*image.parts)) image.parts = failed(errSecCSSignatureFailed);
    if (!image.parts) continue;
    replaceComponent(*image.parts, slot::infoPlist, bundle_->infoPlist);
    replaceComponent(*image.parts, slot::resourceSeal, seal);
  }
  return {};
}

}  // namespace platform::codesignature
