#include "CodeSignature/Requirement.h"
#include "CodeSignature/ResourceCheck.h"
#include "FuzzSupport.h"

#include <array>

#include <fcntl.h>

namespace {

using namespace platform::codesignature;

struct File {
  const char* path;
  const char* contents;
};
constexpr std::array files = {File{"Info.plist", "ab"}, File{"Resources/about.txt", "ab"},
                              File{"Resources/de.lproj/locversion.plist", "ab"}, File{"PkgInfo", "ab"},
                              File{"Helpers/tool", "code"}};
constexpr File sealedLink{"Resources/link", "about.txt"};
constexpr const char* mainExecutable = "MacOS/Main";

/// A bundle's sealed root: a few files, a link and code inside.
class Tree {
 public:
  Tree() {
    namespace fs = std::filesystem;
    for (const char* folder : {"MacOS", "Resources/de.lproj", "Frameworks/Kit.framework", "Helpers"}) {
      fs::create_directories(folder_.path() + "/" + folder);
    }
    for (const File& file : files) fuzz::write(path(file.path), file.contents);
    fuzz::write(path(mainExecutable), "code");
    fs::create_symlink(sealedLink.contents, path(sealedLink.path));
    root_ = platform::posix::FileDescriptor(::open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  [[nodiscard]] int root() const { return root_.get(); }

 private:
  [[nodiscard]] std::string path(const std::string& name) const { return folder_.path() + "/" + name; }

  fuzz::Folder folder_;
  platform::posix::FileDescriptor root_;
};

/// Whether the seal has the file as it is, or its rules want nothing of it.
bool isCovered(const ResourceSeal& seal, const File& file) {
  const auto verdict = seal.rules.verdict(file.path);
  const bool isLink = std::string_view(file.path) == sealedLink.path;
  if (!verdict || verdict->omit || (isLink && seal.version == 1)) return true;
  const auto found = seal.resources.find(file.path);
  if (found == seal.resources.end()) return false;
  if (isLink) return found->second.kind == SealedResource::Kind::link && found->second.linkTarget == file.contents;
  if (verdict->nested) return found->second.kind == SealedResource::Kind::nestedCode;
  const auto hash = found->second.digests.find(HashType::sha256);
  return hash != found->second.digests.end() && hash->second == digest(HashType::sha256, viewOf(file.contents));
}

}  // namespace

/// A bundle's CodeResources over a small tree: what passes covers all of its files and its link.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Tree tree;
  const auto seal = ResourceSeal::parse({data, size});
  if (!seal) return 0;
  const auto nested = [](int, const std::string&, const std::string& requirement) {
    return compileRequirement(requirement) ? Result<void>() : failed(platform::errSecCSResourcesInvalid);
  };
  if (!checkResources(tree.root(), mainExecutable, *seal, {HashType::sha256}, nested)) return 0;
  for (const File& file : files) fuzz::require(isCovered(*seal, file));
  fuzz::require(isCovered(*seal, sealedLink));
  return 0;
}
