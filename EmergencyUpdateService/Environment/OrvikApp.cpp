#include "Environment/OrvikApp.h"

#include "Platform/PropertyList.h"

#include <algorithm>

namespace corvane::OrvikApp {
namespace {

/// The first system whose workspace names every copy of an application; before, it names one.
constexpr platform::OperatingSystemVersion firstWithAllCopies{.major = 12, .minor = 0, .patch = 0};

}  // namespace

std::vector<platform::URL> StateProviderImpl::candidates() const {
  if (processInfo_.operatingSystemVersion() >= firstWithAllCopies) {
    return nsWorkspace_.urlsForApplications(bundleIdentifier);
  }
  const auto only = nsWorkspace_.urlForApplication(bundleIdentifier);
  return only ? std::vector{*only} : std::vector<platform::URL>();
}

bool StateProviderImpl::isInApplicationsDirectory(const platform::URL& candidate) const {
  const std::string path = fileManager_.resolvedAndStandardized(candidate.path());
  return std::ranges::any_of(searchPaths_.applicationDirectories(), [&](const platform::URL& directory) {
    return path.starts_with(fileManager_.resolvedAndStandardized(directory.path()));
  });
}

std::optional<platform::URL> StateProviderImpl::installationURL() const {
  for (const platform::URL& candidate : candidates()) {
    if (isInApplicationsDirectory(candidate)) return candidate;
  }
  return std::nullopt;
}

std::optional<std::string> StateProviderImpl::bundleVersion() const {
  const auto url = installationURL();
  if (!url) {
    logger_.error({"Could not retrieve orvik application installation URL"}, at("bundleVersion"));
    return std::nullopt;
  }
  const platform::URL plistURL =
      url->appendingPathComponent("Contents", platform::URL::PathKind::directory).appendingPathComponent("Info.plist");
  if (!fileManager_.fileExists(plistURL.path())) {
    logger_.error({"Info plist could not be found"}, at("bundleVersion"));
    return std::nullopt;
  }
  const auto bytes = fileManager_.contents(plistURL, platform::PropertyList::maximumBytes);
  const auto plist = bytes ? platform::PropertyList::parse(*bytes) : std::unexpected(bytes.error());
  if (!plist || plist->dictionary() == nullptr) {
    logger_.error({"Info plist could not be parsed"}, at("bundleVersion"));
    return std::nullopt;
  }
  const platform::PropertyList* version = (*plist)["CFBundleVersion"];
  if (version == nullptr || version->string() == nullptr) {
    logger_.error({"Could not find orvik application version"}, at("bundleVersion"));
    return std::nullopt;
  }
  return *version->string();
}

std::vector<std::shared_ptr<platform::RunningApplication>> StateProviderImpl::runningApplications() const {
  auto applications = nsWorkspace_.runningApplications();
  std::erase_if(applications,
                [](const auto& application) { return application->bundleIdentifier() != bundleIdentifier; });
  return applications;
}

bool StateProviderImpl::isInstalled() const {
  const auto url = installationURL();
  return url && fileManager_.fileExists(url->path());
}

}  // namespace corvane::OrvikApp
