#include "CodeSignature/ResourceCheck.h"

#include "CodeSignature/DirectoryListing.h"
#include "CodeSignature/InputFile.h"
#include "CodeSignature/Parallel.h"
#include "CodeSignature/SignatureFolder.h"

#include <algorithm>
#include <optional>
#include <vector>

#include <fcntl.h>

namespace platform::codesignature {
namespace {

constexpr int maximumDepth = 64;
constexpr std::size_t maximumFiles = 1'000'000;

using Kind = SealedResource::Kind;

class ResourceWalk {
 public:
  ResourceWalk(int root, const std::string& mainExecutable, const ResourceSeal& seal,
               const std::set<HashType>& hashTypes, const NestedCodeCheck& checkNested)
      : root_(root), mainExecutable_(mainExecutable), seal_(seal), hashTypes_(hashTypes), checkNested_(checkNested) {}

  Result<void> run() {
    if (auto walked = walk(root_, "", 0); !walked) return walked;
    checkFiles();
    for (const auto& [path, resource] : seal_.resources) {
      if (!resource.isOptional && !visited_.contains(path))
        report(errSecCSBadResource, kSecCFErrorResourceMissing, path);
    }
    return problem_ ? Result<void>(std::unexpected(std::move(*problem_))) : Result<void>();
  }

 private:
  struct PendingFile {
    std::string path;
    const SealedResource* sealed;
  };

  Result<void> walk(int directory, const std::string& prefix, int depth) {
    if (depth > maximumDepth) return failed(errSecCSResourceNotSupported, kSecCFErrorPath, prefix);
    const auto entries = directoryEntries(directory);
    if (!entries) return std::unexpected(entries.error());
    for (const auto& entry : *entries) {
      if (auto done = visit(directory, entry, prefix + entry.name, depth); !done) return done;
    }
    return {};
  }

  Result<void> visit(int directory, const DirectoryEntry& entry, const std::string& path, int depth) {
    if (isExcluded(path)) return {};
    const auto verdict = seal_.rules.verdict(path);
    switch (entry.kind) {
      case DirectoryEntry::Kind::directory:
        if (verdict && verdict->nested && entry.name.contains('.')) return visitNested(directory, entry.name, path);
        return descend(directory, entry.name, path, depth);
      case DirectoryEntry::Kind::link:
        if (entry.name == ".DS_Store") return failed(errSecCSDSStoreSymlink, kSecCFErrorPath, path);
        // The first version of the seal does not know links.
        return verdict && !verdict->omit && seal_.version > 1 ? visitLink(directory, entry.name, path) : Result<void>();
      case DirectoryEntry::Kind::file:
        if (!verdict || verdict->omit) return {};
        return verdict->nested ? visitNested(directory, entry.name, path) : visitFile(path);
      case DirectoryEntry::Kind::other:
        break;
    }
    return failed(errSecCSResourceNotSupported, kSecCFErrorPath, path);
  }

  /// What the signature covers elsewhere, or cannot cover.
  [[nodiscard]] bool isExcluded(const std::string& path) const {
    return path == mainExecutable_ || path == SignatureFolder::name || path == SignatureFolder::sealName ||
           path == "_MASReceipt";
  }

  Result<void> descend(int directory, const std::string& name, const std::string& path, int depth) {
    const auto folder = openFolder(directory, name);
    if (!folder) return std::unexpected(folder.error());
    return walk(folder->number(), path + "/", depth + 1);
  }

  /// The sealed entry for a path, marked as seen; reports one that is not sealed, or as something else.
  const SealedResource* sealed(const std::string& path, Kind kind) {
    const auto found = seal_.resources.find(path);
    if (found == seal_.resources.end()) {
      report(errSecCSBadResource, kSecCFErrorResourceAdded, path);
      return nullptr;
    }
    visited_.insert(path);
    if (found->second.kind == kind) return &found->second;
    report(errSecCSBadResource, kSecCFErrorResourceAltered, path);
    return nullptr;
  }

  Result<void> visitLink(int directory, const std::string& name, const std::string& path) {
    const SealedResource* entry = sealed(path, Kind::link);
    if (entry == nullptr) return {};
    const auto target = linkText(directory, name);
    if (!target) return std::unexpected(target.error());
    if (*target != entry->linkTarget) report(errSecCSBadResource, kSecCFErrorResourceAltered, path);
    return {};
  }

  Result<void> visitFile(const std::string& path) {
    if (const SealedResource* entry = sealed(path, Kind::file)) files_.push_back({path, entry});
    if (files_.size() > maximumFiles) return failed(errSecCSResourceNotSupported);
    return {};
  }

  Result<void> visitNested(int directory, const std::string& name, const std::string& path) {
    const SealedResource* entry = sealed(path, Kind::nestedCode);
    if (entry == nullptr) return {};
    const auto checked = checkNested_(directory, name, entry->requirement);
    if (!checked) report(checked.error().status, kSecCFErrorPath, path);
    return {};
  }

  void checkFiles() {
    std::vector<char> isIntact(files_.size(), 0);
    forEachIndex(files_.size(), [&](std::size_t i) {
      isIntact[i] = static_cast<char>(matches(files_[i]));
      return true;
    });
    for (std::size_t i = 0; i < files_.size(); ++i) {
      if (isIntact[i] == 0) report(errSecCSBadResource, kSecCFErrorResourceAltered, files_[i].path);
    }
  }

  /// Opened just once, so that all hashes are of the same file. One that has vanished or become a link does not match.
  [[nodiscard]] bool matches(const PendingFile& pending) const {
    auto descriptor = openBeneath(root_, pending.path, O_RDONLY | O_NONBLOCK);
    if (!descriptor) return false;
    const auto file = InputFile::adopt(std::move(*descriptor));
    if (!file) return false;
    return std::ranges::all_of(hashTypes_, [&](HashType type) {
      const auto expected = pending.sealed->digests.find(type);
      if (expected == pending.sealed->digests.end()) return false;
      const auto found = digest(type, *file, 0, file->size());
      return found && *found == expected->second;
    });
  }

  /// The first problem decides the status; every file is named.
  void report(OSStatus status, std::string_view key, const std::string& path) {
    if (!problem_) problem_ = Failure{status, {}};
    const auto [value, isFirst] = problem_->userInfo.try_emplace(std::string(key), path);
    if (!isFirst) std::get<std::string>(value->second).append("\n").append(path);
  }

  int root_;
  const std::string& mainExecutable_;
  const ResourceSeal& seal_;
  const std::set<HashType>& hashTypes_;
  const NestedCodeCheck& checkNested_;
  std::vector<PendingFile> files_;
  std::set<std::string> visited_;
  std::optional<Failure> problem_;
};

}  // namespace

Result<void> checkResources(int root, const std::string& mainExecutable, const ResourceSeal& seal,
                            const std::set<HashType>& hashTypes, const NestedCodeCheck& checkNested) {
  return ResourceWalk(root, mainExecutable, seal, hashTypes, checkNested).run();
}

}  // namespace platform::codesignature
