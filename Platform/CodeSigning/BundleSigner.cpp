#include "CodeSignature/BundleLayout.h"
#include "CodeSignature/MachO.h"
#include "CodeSignature/SignatureFolder.h"
#include "CodeSigning/CodeSigner.h"
#include "CodeSigning/OutputFile.h"
#include "CodeSigning/ResourceSealer.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

namespace platform::codesigning {
namespace {

using namespace codesignature;
namespace fs = std::filesystem;

constexpr mode_t readableByAll = 0644;

std::string sealedRootOf(const std::string& path, const BundleLayout& layout) {
  if (layout.shape == BundleLayout::Shape::contents) return path + "/Contents";
  if (layout.shape == BundleLayout::Shape::framework) return path + "/Versions/" + layout.currentVersion;
  return path;
}

std::string identifierOf(const std::string& path, const PropertyList& info) {
  const PropertyList* value = info["CFBundleIdentifier"];
  const std::string* identifier = value == nullptr ? nullptr : value->string();
  return identifier == nullptr ? fs::path(path).stem().string() : *identifier;
}

/// A signature's folder in the making, beside the one it replaces.
class NewSignatureFolder {
 public:
  static Signed<NewSignatureFolder> create(const std::string& sealedRoot) {
    std::string path = sealedRoot + "/.CodeSignature.XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) return std::unexpected(sealedRoot + ": cannot be written");
    return NewSignatureFolder(sealedRoot + "/" + SignatureFolder::name, std::move(path));
  }
  NewSignatureFolder(NewSignatureFolder&& other) noexcept
      : place_(std::move(other.place_)), path_(std::exchange(other.path_, {})) {}
  NewSignatureFolder& operator=(NewSignatureFolder&&) = delete;
  ~NewSignatureFolder() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }

  [[nodiscard]] Signed<void> add(const std::string& name, ByteView bytes) const {
    auto file = OutputFile::create(path_ + "/" + name);
    if (!file) return std::unexpected(file.error());
    if (auto done = file->append(bytes); !done) return done;
    return file->commit(readableByAll);
  }

  /// Exchanges the folders, so that at any time one of them is in its place.
  [[nodiscard]] Signed<void> commit() {
    std::error_code error;
    fs::permissions(path_, fs::perms(0755), error);
    if (::renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, place_.c_str(), RENAME_EXCHANGE) == 0) return {};
    fs::rename(path_, place_, error);
    if (error) return std::unexpected(place_ + ": " + error.message());
    path_.clear();
    return {};
  }

 private:
  NewSignatureFolder(std::string place, std::string path) : place_(std::move(place)), path_(std::move(path)) {}
  std::string place_;
  std::string path_;
};

Signed<void> addParts(const NewSignatureFolder& folder, const SignatureParts& parts) {
  auto done = folder.add(SignatureFolder::fileName(slot::cms), parts.cms);
  for (std::uint32_t i = 0; done && i < parts.codeDirectories.size(); ++i) {
    const std::uint32_t slotNumber = i == 0 ? slot::codeDirectory : slot::firstAlternate + i - 1;
    done = folder.add(SignatureFolder::fileName(slotNumber), parts.codeDirectories[i]);
  }
  for (const auto& [slotNumber, component] : parts.components) {
    const char* name = SignatureFolder::fileName(slotNumber);
    if (done && name != nullptr) done = folder.add(name, component);
  }
  return done;
}

}  // namespace

Signed<void> signBundle(const std::string& path, SigningRequest request) {
  posix::FileDescriptor root(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) return std::unexpected(path + ": cannot be read");
  const auto layout = BundleLayout::open(std::move(root), fs::path(path).filename().string());
  if (!layout) return std::unexpected(path + ": bundle format unrecognized");
  const std::string sealedRoot = sealedRootOf(path, *layout);
  if (fs::exists(sealedRoot + "/" + SignatureFolder::name) && !request.replacesSignature) {
    return std::unexpected(path + ": is already signed");
  }
  if (request.identifier.empty()) request.identifier = identifierOf(path, infoDictionary(layout->infoPlist));
  auto seal = request.resourceSeal ? Signed<Bytes>(*request.resourceSeal)
                                   : makeResourceSeal(sealedRoot, layout->executablePath);
  if (!seal) return std::unexpected(seal.error());
  auto folder = NewSignatureFolder::create(sealedRoot);
  if (!folder) return std::unexpected(folder.error());
  if (auto done = folder->add(SignatureFolder::sealName, *seal); !done) return done;

  Components components = {{slot::requirements, emptyRequirements()}, {slot::resourceSeal, std::move(*seal)}};
  if (layout->infoPlist) components.emplace(slot::infoPlist, *layout->infoPlist);
  const auto head = layout->executable.bytes(0, std::min<std::uint64_t>(layout->executable.size(), 4));
  if (head && beginsMachO(*head)) {
    const std::string executable = sealedRoot + "/" + layout->executablePath;
    request.replacesSignature = true;  // a linker's own signature may be there in a bundle that has none yet
    if (auto done = signMachO(executable, layout->executable, request, components); !done) return done;
    return folder->commit();
  }
  const auto parts = makeSignature(request, std::move(components), {layout->executable, 0, layout->executable.size()});
  if (!parts) return std::unexpected(parts.error());
  if (auto done = addParts(*folder, *parts); !done) return done;
  return folder->commit();
}

}  // namespace platform::codesigning
