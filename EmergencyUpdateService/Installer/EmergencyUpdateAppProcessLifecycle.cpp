#include "Installer/EmergencyUpdateAppProcessLifecycle.h"

#include <fmt/format.h>

namespace corvane {
namespace {

constexpr const char* launchArgument = "launchSourceEmergencyUpdateService";

/// The text between single quotes, where a quote of its own ends them, stands escaped and opens them again.
std::string withQuotesEscaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\'') {
      escaped += "'\\''";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

}  // namespace

std::vector<std::int64_t> EmergencyUpdateAppProcessLifecycle::terminateRunningApps() const {
  const auto applications = appStateProvider_->runningApplications();
  if (applications.empty()) return {};
  if (const auto preferences = userDefaults_.suite(OrvikApp::bundleIdentifier)) {
    preferences->set(true, "wasTerminatedNormally");
  }
  for (const auto& application : applications) application->terminate();
  std::vector<std::int64_t> identifiers;
  identifiers.reserve(applications.size());
  for (const auto& application : applications) identifiers.push_back(application->processIdentifier());
  return identifiers;
}

void EmergencyUpdateAppProcessLifecycle::waitForTermination(const std::vector<std::int64_t>& of) const {
  std::string script;
  for (const std::int64_t identifier : of) {
    if (identifier < 1) continue;
    script += fmt::format("while /bin/kill -0 {} >&/dev/null; do\n    /bin/sleep 0.1;\ndone;\n", identifier);
  }
  if (!script.empty()) run(script);
}

void EmergencyUpdateAppProcessLifecycle::launchApp(const platform::URL& at) const {
  run(fmt::format(
      "for attempt in {{1..100}}; do\n    /usr/bin/open '{}' --args {} && break;\n    /bin/sleep 0.1;\ndone;",
      withQuotesEscaped(at.path()), launchArgument));
}

void EmergencyUpdateAppProcessLifecycle::run(const std::string& script) const {
  commandExecutor_->execute(CaptureOutput::no, "/bin/bash", {"-c", fmt::format("(\n    {}\n)", script)});
}

}  // namespace corvane
