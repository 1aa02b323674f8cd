#include "CodeSignature/ResourceCheck.h"

#include "CodeSignature/DirectoryListing.h"
#include "CodeSignature/InputFile.h"
#include "CodeSignature/Parallel.h"
#include "CodeSignature/SignatureFolder.h"
#include "Platform/UTF8.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <utf8proc.h>

namespace platform::codesignature {
namespace {

constexpr int maximumDepth = 64;
constexpr std::size_t maximumFiles = 1'000'000;

using Kind = SealedResource::Kind;
using Resources = std::map<std::string, SealedResource>;

bool isASCII(std::string_view text) {
  return std::ranges::all_of(text, [](unsigned char c) { return c < 0x80; });
}

/// Whether more combining marks follow each other than Unicode's stream-safe format allows. The library's time to order
/// them grows with the square of their number.
bool hasTooManyMarks(std::string_view text) {
  constexpr int limit = 30;
  int marks = 0;
  while (const auto scalar = firstScalar(text)) {
    const bool isMark = utf8proc_get_property(static_cast<utf8proc_int32_t>(scalar->value))->combining_class != 0;
    marks = isMark ? marks + 1 : 0;
    if (marks > limit) return true;
    text.remove_prefix(scalar->bytes);
  }
  return false;
}

/// Unicode's NFC; as it stands a text that is not UTF-8 or that no language writes.
std::string canonicalForm(const std::string& text) {
  if (hasTooManyMarks(text)) return text;
  utf8proc_uint8_t* form = nullptr;
  const utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()), static_cast<utf8proc_ssize_t>(text.size()),
                   &form, static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  const std::unique_ptr<utf8proc_uint8_t, decltype(&free)> owned(form, &free);
  return length < 0 ? text : std::string(reinterpret_cast<const char*>(form), static_cast<std::size_t>(length));
}

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
    return walk(folder->get(), path + "/", depth + 1);
  }

  /// By the path's bytes, or else by its canonical form: an HFS+ volume gives back "é" as "e" and an accent, and a
  /// Mac's file systems take one for the other.
  [[nodiscard]] Resources::const_iterator findSealed(const std::string& path) {
    const auto found = seal_.resources.find(path);
    if (found != seal_.resources.end() || isASCII(path)) return found;
    if (byCanonicalForm_.empty()) {
      for (auto sealed = seal_.resources.begin(); sealed != seal_.resources.end(); ++sealed) {
        if (!isASCII(sealed->first)) byCanonicalForm_.emplace(canonicalForm(sealed->first), sealed);
      }
    }
    const auto alike = byCanonicalForm_.find(canonicalForm(path));
    return alike == byCanonicalForm_.end() ? found : alike->second;
  }

  /// The sealed entry for a path, marked as seen; reports one that is not sealed, or as something else.
  const SealedResource* sealed(const std::string& path, Kind kind) {
    const auto found = findSealed(path);
    // A Mac's file systems cannot hold two names that differ in their form alone; one of them is not sealed.
    if (found == seal_.resources.end() || !visited_.insert(found->first).second) {
      report(errSecCSBadResource, kSecCFErrorResourceAdded, path);
      return nullptr;
    }
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
    std::vector<OSStatus> statuses(files_.size(), errSecSuccess);
    forEachIndex(files_.size(), [&](std::size_t i) {
      statuses[i] = check(files_[i]);
      return true;
    });
    for (std::size_t i = 0; i < files_.size(); ++i) {
      if (statuses[i] == errSecSuccess) continue;
      const bool isAltered = statuses[i] == errSecCSBadResource;
      report(statuses[i], isAltered ? kSecCFErrorResourceAltered : kSecCFErrorPath, files_[i].path);
    }
  }

  /// Opened just once, so that all hashes are of the same file.
  [[nodiscard]] OSStatus check(const PendingFile& pending) const {
    auto descriptor = openBeneath(root_, pending.path, O_RDONLY | O_NONBLOCK);
    if (!descriptor) return statusOf(descriptor.error());
    const auto file = InputFile::adopt(std::move(*descriptor));
    if (!file) return statusOf(file.error());
    for (const HashType type : hashTypes_) {
      const auto expected = pending.sealed->digests.find(type);
      if (expected == pending.sealed->digests.end()) return errSecCSBadResource;
      const auto found = digest(type, *file, 0, file->size());
      if (!found) return statusOf(found.error());
      if (*found != expected->second) return errSecCSBadResource;
    }
    return errSecSuccess;
  }

  /// A file that cannot be read says why; one that has vanished or become something else meanwhile has been altered.
  static OSStatus statusOf(const Failure& failure) {
    const bool isOfSystem = failure.status > statusOfErrno(0);
    const std::array changed = {statusOfErrno(ENOENT), statusOfErrno(ENOTDIR), statusOfErrno(ELOOP)};
    return isOfSystem && std::ranges::find(changed, failure.status) == changed.end() ? failure.status
                                                                                     : errSecCSBadResource;
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
  std::set<std::string> visited_;                                     // as the seal spells them
  std::map<std::string, Resources::const_iterator> byCanonicalForm_;  // of names beyond ASCII, made when needed
  std::optional<Failure> problem_;
};

}  // namespace

Result<void> checkResources(int root, const std::string& mainExecutable, const ResourceSeal& seal,
                            const std::set<HashType>& hashTypes, const NestedCodeCheck& checkNested) {
  return ResourceWalk(root, mainExecutable, seal, hashTypes, checkNested).run();
}

}  // namespace platform::codesignature
