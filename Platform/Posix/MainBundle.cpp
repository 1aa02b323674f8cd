#include "Posix/MainBundle.h"

#include "Posix/PropertyListFile.h"

#include <array>
#include <climits>

#include <unistd.h>

namespace platform::posix {
namespace {

std::string parentOf(std::string_view path) {
  return std::string(path.substr(0, path.rfind('/')));
}

}  // namespace

std::optional<std::string> bundlePathOfExecutable(std::string_view executablePath) {
  static constexpr std::string_view inside = "/Contents/MacOS";
  const std::string folder = parentOf(executablePath);
  if (!folder.ends_with(inside)) return std::nullopt;
  std::string bundle = folder.substr(0, folder.size() - inside.size());
  if (!bundle.ends_with(".app")) return std::nullopt;
  return bundle;
}

std::optional<PropertyList> informationDictionary(const std::string& bundlePath) {
  return readDictionary(bundlePath + "/Contents/Info.plist");
}

std::optional<std::string> bundleIdentifier(const PropertyList& informationDictionary) {
  const PropertyList* identifier = informationDictionary["CFBundleIdentifier"];
  if (identifier == nullptr || identifier->string() == nullptr || identifier->string()->empty()) return std::nullopt;
  return *identifier->string();
}

Bundle makeBundle(const std::string& executablePath, const Sysroot& sysroot) {
  const auto bundlePath = bundlePathOfExecutable(executablePath);
  const std::string folder = bundlePath.value_or(parentOf(executablePath));
  Bundle bundle{.bundleURL = URL::fileURL(sysroot.macPath(folder), URL::PathKind::directory),
                .infoDictionary = {},
                .bundleIdentifier = {}};
  if (!bundlePath) return bundle;
  if (const auto information = informationDictionary(*bundlePath)) {
    bundle.infoDictionary = *information->dictionary();
    bundle.bundleIdentifier = bundleIdentifier(*information);
  }
  return bundle;
}

Bundle makeMainBundle(const Sysroot& sysroot) {
  std::array<char, PATH_MAX> path{};
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  return makeBundle(length > 0 ? std::string(path.data(), static_cast<std::size_t>(length)) : "/", sysroot);
}

}  // namespace platform::posix
