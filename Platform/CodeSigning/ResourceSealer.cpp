#include "CodeSigning/ResourceSealer.h"

#include "CodeSignature/DirectoryListing.h"
#include "CodeSignature/ResourceRules.h"
#include "CodeSignature/SignatureFolder.h"
#include "CodeSignature/StaticCode.h"
#include "Platform/PropertyList.h"
#include "Platform/UTF8.h"

#include <algorithm>
#include <filesystem>

#include <fcntl.h>
#include <fmt/format.h>

namespace platform::codesigning {
namespace {

using namespace codesignature;
using Dictionary = PropertyList::Dictionary;

PropertyList omitted(double weight) {
  return Dictionary{{"omit", true}, {"weight", weight}};
}
PropertyList weighted(double weight) {
  return Dictionary{{"weight", weight}};
}
PropertyList optional(double weight) {
  return Dictionary{{"optional", true}, {"weight", weight}};
}
PropertyList nested(double weight) {
  return Dictionary{{"nested", true}, {"weight", weight}};
}

/// The rules every signing tool seals with, for bundles with and without a Resources folder.
Dictionary defaultRules(bool hasResources) {
  const std::string prefix = hasResources ? "^Resources/" : "^";
  Dictionary rules = {{"^.*", true},
                      {".*\\.dSYM($|/)", weighted(11)},
                      {"^(.*/)?\\.DS_Store$", omitted(2000)},
                      {"^Info\\.plist$", omitted(20)},
                      {"^PkgInfo$", omitted(20)},
                      {"^embedded\\.provisionprofile$", weighted(20)},
                      {"^version\\.plist$", weighted(20)},
                      {prefix + ".*\\.lproj/", optional(1000)},
                      {prefix + "Base\\.lproj/", weighted(1010)},
                      {prefix + ".*\\.lproj/locversion.plist$", omitted(1100)}};
  if (hasResources) {
    rules.insert({{"^[^/]+$", nested(10)},
                  {"^(Frameworks|SharedFrameworks|PlugIns|Plug-ins|XPCServices|Helpers|MacOS|Library/"
                   "(Automator|Spotlight|LoginItems))/",
                   nested(10)},
                  {"^Resources/", weighted(20)}});
  }
  return rules;
}

std::string hexOf(const Bytes& bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

/// What nested code must be from now on: of the same name, and by the same root and team.
std::string designatedRequirement(const VerifiedSignature& signature) {
  if (signature.chain.empty()) return fmt::format("cdhash H\"{}\"", hexOf(signature.best().cdhash()));
  std::string text = fmt::format("identifier \"{}\" and certificate root = H\"{}\"", signature.best().identifier(),
                                 hexOf(signature.chain.back().sha1()));
  const auto units = signature.chain.front().subjectAttributes("OU");
  if (!units.empty()) text += fmt::format(" and certificate leaf[subject.OU] = \"{}\"", units.back());
  return text;
}

class Sealer {
 public:
  Sealer(std::string root, std::string mainExecutable, ResourceRules rules)
      : root_(std::move(root)), mainExecutable_(std::move(mainExecutable)), rules_(std::move(rules)) {}

  Signed<Dictionary> run() {
    const posix::FileDescriptor folder(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return std::unexpected(root_ + ": cannot be read");
    if (auto done = walk(folder.get(), ""); !done) return std::unexpected(done.error());
    return std::move(files_);
  }

 private:
  Signed<void> walk(int directory, const std::string& prefix) {
    const auto entries = directoryEntries(directory);
    if (!entries) return std::unexpected(prefix + ": cannot be read");
    for (const auto& entry : *entries) {
      if (auto done = visit(directory, entry, prefix + entry.name); !done) return done;
    }
    return {};
  }

  Signed<void> visit(int directory, const DirectoryEntry& entry, const std::string& path) {
    if (path == mainExecutable_ || path == SignatureFolder::name || path == SignatureFolder::sealName) return {};
    const auto verdict = rules_.verdict(path);
    const bool isNested = verdict && verdict->nested;
    const auto isControl = [](unsigned char c) { return c < 0x20; };
    if (!utf16FromText(entry.name) || std::ranges::any_of(entry.name, isControl)) {
      return std::unexpected(path + ": XML cannot hold the name");
    }
    if (entry.kind == DirectoryEntry::Kind::directory) {
      return isNested && entry.name.contains('.') ? sealNested(path) : descend(directory, entry.name, path);
    }
    if (entry.kind == DirectoryEntry::Kind::other) return std::unexpected(path + ": cannot be sealed");
    if (!verdict || verdict->omit) return {};
    if (entry.kind == DirectoryEntry::Kind::link) return sealLink(directory, entry.name, path);
    return isNested ? sealNested(path) : sealFile(directory, entry.name, path, verdict->optional);
  }

  Signed<void> descend(int directory, const std::string& name, const std::string& path) {
    const auto folder = openFolder(directory, name);
    if (!folder) return std::unexpected(path + ": cannot be read");
    return walk(folder->get(), path + "/");
  }

  Signed<void> sealLink(int directory, const std::string& name, const std::string& path) {
    auto target = linkText(directory, name);
    if (!target) return std::unexpected(path + ": cannot be read");
    files_.emplace(path, Dictionary{{"symlink", std::move(*target)}});
    return {};
  }

  Signed<void> sealFile(int directory, const std::string& name, const std::string& path, bool isOptional) {
    const auto file = InputFile::open(directory, name, InputFile::Links::refuse);
    auto hash = file ? digest(HashType::sha256, *file, 0, file->size()) : Result<Bytes>(std::unexpected(file.error()));
    if (!hash) return std::unexpected(path + ": cannot be read");
    Dictionary entry = {{"hash2", std::move(*hash)}};
    if (isOptional) entry.emplace("optional", true);
    files_.emplace(path, std::move(entry));
    return {};
  }

  Signed<void> sealNested(const std::string& path) {
    const Anchors none;
    const auto code = StaticCode::open(root_ + "/" + path);
    const auto signatures = code ? (*code)->signatures(none) : std::unexpected(code.error());
    if (!signatures || !(*code)->check(nullptr, none)) {
      return std::unexpected(path + ": nested code is not signed, or not validly");
    }
    const VerifiedSignature& first = signatures->front();
    files_.emplace(path, Dictionary{{"cdhash", first.best().cdhash()}, {"requirement", designatedRequirement(first)}});
    return {};
  }

  std::string root_;
  std::string mainExecutable_;
  ResourceRules rules_;
  Dictionary files_;
};

}  // namespace

Signed<Bytes> makeResourceSeal(const std::string& root, const std::string& mainExecutable) {
  const PropertyList rules = defaultRules(std::filesystem::is_directory(root + "/Resources"));
  auto parsed = ResourceRules::parse(rules);
  if (!parsed) return std::unexpected("the default rules do not compile");
  auto files = Sealer(root, mainExecutable, std::move(*parsed)).run();
  if (!files) return std::unexpected(files.error());
  const PropertyList seal = Dictionary{{"files2", std::move(*files)}, {"rules2", rules}};
  return copyOf(viewOf(seal.serialized(PropertyList::Format::xml)));
}

}  // namespace platform::codesigning
