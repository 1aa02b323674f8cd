#include "Installer/EmergencyUpdateInstaller.h"

#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace corvane {
namespace {

constexpr const char* function = "install(from:initiallyInstalledBundleVersion:)";

/// Runs an action at the end of a scope, however that is left.
template <class Action>
class ScopeGuard {
 public:
  explicit ScopeGuard(Action action) : action_(std::move(action)) {}
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;
  ~ScopeGuard() { action_(); }

 private:
  Action action_;
};

/// The reasons as a list of quoted texts: ["appPreviouslyRunning"].
std::string listed(const std::set<EmergencyUpdatePostInstallLaunchDecider::Reason>& reasons) {
  std::vector<std::string> texts;
  texts.reserve(reasons.size());
  for (const auto reason : reasons) texts.push_back(fmt::format("\"{}\"", rawValue(reason)));
  return fmt::format("[{}]", fmt::join(texts, ", "));
}

}  // namespace

void EmergencyUpdateInstallerImpl::install(const platform::URL& from,
                                           const std::string& initiallyInstalledBundleVersion) {
  logger_.info({"Checking ability to replace app files"}, at(function));
  if (!stages_.fileInstaller.isAbleToReplaceAppFiles()) {
    logger_.error({"Installer stopped, aborting install early because replacing app files is not possible"},
                  at(function));
    return;
  }
  const auto image = downloadAndVerify(from);
  if (!image) return;

  logger_.info({"Unarchiving"}, at(function));
  const auto app = stages_.unarchiver.unarchive(*image);
  if (!app) {
    logger_.error({"Installer stopped, unarchiving failed"}, at(function));
    return;
  }
  const ScopeGuard cleanup([&] {
    logger_.info({"Cleaning up"}, at(function));
    stages_.unarchiver.cleanup(*app);
  });
  replaceAndRelaunch(*app, initiallyInstalledBundleVersion);
}

std::optional<platform::URL> EmergencyUpdateInstallerImpl::downloadAndVerify(const platform::URL& from) {
  logger_.info({"Downloading"}, at(function));
  auto image = stages_.downloader->download(from);
  if (!image) {
    logger_.error({"Installer stopped, download failed"}, at(function));
    return std::nullopt;
  }
  logger_.info({"Initial package verification"}, at(function));
  if (!stages_.verifier.verify(*image, std::nullopt, "InitialVerification")) {
    logger_.error({"Installer stopped, initial verification failed"}, at(function));
    return std::nullopt;
  }
  return image;
}

void EmergencyUpdateInstallerImpl::replaceAndRelaunch(const platform::URL& app,
                                                      const std::string& initiallyInstalledBundleVersion) {
  prepare(app);
  const std::vector<std::int64_t> terminated = terminateApp();

  logger_.info({"Replacing app files at final destination"}, at(function));
  const auto installedApp = stages_.fileInstaller.replaceAppFiles(app);
  if (!installedApp) {
    logger_.error({"Installer stopped, replacing app files failed"}, at(function));
    return;
  }
  const auto decision = stages_.launchDecider.decide(terminated);

  logger_.info({"Final verification initiallyInstalledBundleVersion={}", initiallyInstalledBundleVersion},
               at(function));
  if (!stages_.verifier.verify(*installedApp, initiallyInstalledBundleVersion, "FinalVerification")) {
    logger_.error({"Installer stopped, final verification failed"}, at(function));
    return;
  }
  act(decision, *installedApp);
  logger_.info({"Installation completed"}, at(function));
}

void EmergencyUpdateInstallerImpl::prepare(const platform::URL& app) const {
  logger_.info({"Performing pre-install actions"}, at(function));
  stages_.preInstallActions.removeQuarantine(app);
  stages_.preInstallActions.touch(app);
  stages_.preInstallActions.scanWithGatekeeper(app);
}

std::vector<std::int64_t> EmergencyUpdateInstallerImpl::terminateApp() const {
  logger_.info({"Terminating app process(es)"}, at(function));
  std::vector<std::int64_t> identifiers = stages_.appProcessLifecycle.terminateRunningApps();
  stages_.appProcessLifecycle.waitForTermination(identifiers);
  return identifiers;
}

void EmergencyUpdateInstallerImpl::act(const EmergencyUpdatePostInstallLaunchDecider::Decision& decision,
                                       const platform::URL& installedApp) const {
  const auto* perform = std::get_if<EmergencyUpdatePostInstallLaunchDecider::Perform>(&decision);
  if (perform == nullptr) {
    logger_.info({"Skipping app launch"}, at(function));
    return;
  }
  logger_.info({"Launching app: {}", listed(perform->reasons)}, at(function));
  stages_.appProcessLifecycle.launchApp(installedApp);
}

}  // namespace corvane
