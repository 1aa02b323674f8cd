#include "CodeSignature/Requirement.h"
#include "CodeSignature/ResourceCheck.h"
#include "FuzzSupport.h"

#include <array>

#include <fcntl.h>

namespace {

using namespace platform::codesignature;

constexpr std::array files = {"Info.plist", "Resources/about.txt", "Resources/de.lproj/locversion.plist", "PkgInfo"};
constexpr const char* mainExecutable = "MacOS/Main";

/// A bundle's sealed root: files of two bytes each, a link and code inside.
class Tree {
 public:
  Tree() {
    namespace fs = std::filesystem;
    for (const char* folder : {"MacOS", "Resources/de.lproj", "Frameworks/Kit.framework", "Helpers"}) {
      fs::create_directories(folder_.path() + "/" + folder);
    }
    for (const char* file : files) fuzz::write(path(file), "ab");
    for (const char* code : {mainExecutable, "Helpers/tool"}) fuzz::write(path(code), "code");
    fs::create_symlink("about.txt", path("Resources/link"));
    root_ = Descriptor(::open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  [[nodiscard]] int root() const { return root_.number(); }

 private:
  [[nodiscard]] std::string path(const std::string& name) const { return folder_.path() + "/" + name; }

  fuzz::Folder folder_;
  Descriptor root_;
};

/// Whether the seal has the file as it is, or its rules want nothing of it.
bool isCovered(const ResourceSeal& seal, const std::string& path) {
  static const Bytes expected = digest(HashType::sha256, viewOf("ab"));
  const auto verdict = seal.rules.verdict(path);
  if (!verdict || verdict->omit) return true;
  const auto found = seal.resources.find(path);
  if (found == seal.resources.end()) return false;
  if (verdict->nested) return found->second.kind == SealedResource::Kind::nestedCode;
  const auto hash = found->second.digests.find(HashType::sha256);
  return hash != found->second.digests.end() && hash->second == expected;
}

}  // namespace

/// A bundle's CodeResources over a small tree: what passes covers all of its files.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Tree tree;
  const auto seal = ResourceSeal::parse({data, size});
  if (!seal) return 0;
  const auto nested = [](int, const std::string&, const std::string& requirement) {
    return compileRequirement(requirement) ? Result<void>() : failed(platform::errSecCSResourcesInvalid);
  };
  if (!checkResources(tree.root(), mainExecutable, *seal, {HashType::sha256}, nested)) return 0;
  for (const char* file : files) fuzz::require(isCovered(*seal, file));
  return 0;
}
