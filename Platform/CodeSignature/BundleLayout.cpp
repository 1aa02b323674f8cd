#include "CodeSignature/BundleLayout.h"

#include "CodeSignature/DirectoryListing.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fcntl.h>

namespace platform::codesignature {
namespace {

constexpr std::uint64_t maximumInfoPlist = std::uint64_t{16} << 20U;
constexpr const char* infoPlistName = "Info.plist";
constexpr const char* infoPlistInResources = "Resources/Info.plist";

struct OpenedFile {
  std::string path;
  InputFile file;
};

/// The first of the paths where a regular file is; absent when there is nothing at any of them.
Result<std::optional<OpenedFile>> firstFile(int directory, std::initializer_list<std::string> paths) {
  for (const auto& path : paths) {
    auto descriptor = openBeneath(directory, path, O_RDONLY | O_NONBLOCK);
    if (!descriptor && descriptor.error().status == statusOfErrno(ENOENT)) continue;
    if (!descriptor) return failed(errSecCSRegularFile, kSecCFErrorPath, path);
    auto file = InputFile::adopt(std::move(*descriptor));
    if (!file) return failed(errSecCSRegularFile, kSecCFErrorPath, path);
    return OpenedFile{path, std::move(*file)};
  }
  return std::nullopt;
}

/// The executable's name: as the dictionary says, else the bundle's without its extension. Absent for what is no name.
std::optional<std::string> executableName(const PropertyList& info, const std::string& bundleName) {
  for (const char* key : {"CFBundleExecutable", "NSExecutable"}) {
    const PropertyList* value = info[key];
    if (value == nullptr) continue;
    const std::string* name = value->string();
    if (name == nullptr || name->empty() || *name == "." || *name == ".." || name->contains('/') ||
        name->contains('\0')) {
      return std::nullopt;
    }
    return *name;
  }
  return bundleName.substr(0, bundleName.rfind('.'));
}

struct Places {
  BundleLayout::Shape shape;
  posix::FileDescriptor sealedRoot;
  std::string currentVersion;
};

bool exists(int directory, const char* name) {
  return ::faccessat(directory, name, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

Result<Places> placesOf(int root) {
  if (exists(root, "Contents")) {
    auto contents = openFolder(root, "Contents");
    if (!contents) return failed(errSecCSBadBundleFormat);
    return Places{BundleLayout::Shape::contents, std::move(*contents), {}};
  }
  if (exists(root, "Versions")) {
    const auto versions = openFolder(root, "Versions");
    if (!versions) return failed(errSecCSBadBundleFormat);
    auto current = linkText(versions->get(), "Current");
    if (!current || current->empty() || current->contains('/') || current->starts_with('.')) {
      return failed(errSecCSBadFrameworkVersion);
    }
    auto version = openFolder(versions->get(), *current);
    if (!version) return failed(errSecCSBadFrameworkVersion);
    return Places{BundleLayout::Shape::framework, std::move(*version), std::move(*current)};
  }
  auto same = openFolder(root, ".");
  if (!same) return std::unexpected(same.error());
  return Places{BundleLayout::Shape::flat, std::move(*same), {}};
}

/// A bundle without code signs its Info.plist in place of an executable.
Result<OpenedFile> mainFile(int directory, const std::string& path, std::optional<OpenedFile> infoPlist) {
  auto executable = firstFile(directory, {path});
  if (!executable) return std::unexpected(executable.error());
  if (executable->has_value()) return std::move(executable->value());
  if (infoPlist) return std::move(*infoPlist);
  return failed(errSecCSBadBundleFormat);
}

Result<BundleLayout> layoutOf(posix::FileDescriptor root, Places places, const std::string& name) {
  const int directory = places.sealedRoot.get();
  const bool hasContents = places.shape == BundleLayout::Shape::contents;
  auto info =
      hasContents ? firstFile(directory, {infoPlistName}) : firstFile(directory, {infoPlistInResources, infoPlistName});
  if (!info) return std::unexpected(info.error());
  std::optional<Bytes> infoPlist;
  if (info->has_value()) {
    auto contents = info->value().file.contents(maximumInfoPlist);
    if (!contents) return std::unexpected(contents.error());
    infoPlist = std::move(*contents);
  }
  const auto executable = executableName(infoDictionary(infoPlist), name);
  if (!executable) return failed(errSecCSBadBundleFormat);
  auto main = mainFile(directory, hasContents ? "MacOS/" + *executable : *executable, std::move(*info));
  if (!main) return std::unexpected(main.error());
  return BundleLayout{places.shape,         std::move(root),       std::move(places.sealedRoot), places.currentVersion,
                      std::move(infoPlist), std::move(main->path), std::move(main->file)};
}

bool isFinderFile(const DirectoryEntry& entry) {
  constexpr std::array<std::string_view, 4> names = {".DS_Store", ".LSOverride", "Icon\r", ".SoftwareDepot.tracking"};
  return entry.kind == DirectoryEntry::Kind::file && !entry.isExecutable &&
         std::ranges::find(names, entry.name) != names.end();
}

/// A link of a framework's root: to its namesake in the current version.
bool isVersionLink(int root, const DirectoryEntry& entry, const std::string& currentVersion) {
  if (entry.kind != DirectoryEntry::Kind::link) return false;
  auto target = linkText(root, entry.name);
  if (!target) return false;
  std::string_view text = *target;
  if (text.starts_with("./")) text.remove_prefix(2);
  return text == "Versions/Current/" + entry.name || text == "Versions/" + currentVersion + "/" + entry.name;
}

}  // namespace

Result<BundleLayout> BundleLayout::open(posix::FileDescriptor root, const std::string& name) {
  auto places = placesOf(root.get());
  if (!places) return std::unexpected(places.error());
  return layoutOf(std::move(root), std::move(*places), name);
}

Result<BundleLayout> BundleLayout::openVersion(posix::FileDescriptor version, const std::string& frameworkName) {
  auto same = openFolder(version.get(), ".");
  if (!same) return std::unexpected(same.error());
  return layoutOf(std::move(version), Places{Shape::flat, std::move(*same), {}}, frameworkName);
}

Result<void> BundleLayout::checkRoot() const {
  if (shape == Shape::flat) return {};
  const auto entries = directoryEntries(root.get());
  if (!entries) return std::unexpected(entries.error());
  const bool isFramework = shape == Shape::framework;
  for (const auto& entry : *entries) {
    const bool isSealed = entry.name == (isFramework ? "Versions" : "Contents");
    const bool isLink = isFramework && isVersionLink(root.get(), entry, currentVersion);
    const bool isModuleMap = isFramework && entry.name == "module.map" && !entry.isExecutable;
    if (isSealed || isLink || isModuleMap || isFinderFile(entry)) continue;
    return failed(isFramework ? errSecCSUnsealedFrameworkRoot : errSecCSUnsealedAppRoot, kSecCFErrorResourceAdded,
                  entry.name);
  }
  return {};
}

Result<std::vector<std::string>> BundleLayout::otherVersions() const {
  std::vector<std::string> names;
  if (shape != Shape::framework) return names;
  const auto versions = openFolder(root.get(), "Versions");
  if (!versions) return std::unexpected(versions.error());
  const auto entries = directoryEntries(versions->get());
  if (!entries) return std::unexpected(entries.error());
  for (const auto& entry : *entries) {
    if (entry.name == currentVersion || entry.name == "Current" || isFinderFile(entry)) continue;
    if (entry.kind != DirectoryEntry::Kind::directory) return failed(errSecCSUnsealedFrameworkRoot);
    names.push_back(entry.name);
  }
  return names;
}

PropertyList infoDictionary(const std::optional<Bytes>& infoPlist) {
  if (infoPlist) {
    auto parsed = PropertyList::parse(textOf(*infoPlist));
    if (parsed && parsed->dictionary() != nullptr) return std::move(*parsed);
  }
  return PropertyList::Dictionary();
}

}  // namespace platform::codesignature
