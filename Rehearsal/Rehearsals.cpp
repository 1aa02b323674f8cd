#include "Rehearsal/Rehearsals.h"

#include "Platform/URL.h"
#include "Rehearsal/Maker.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace rehearsal {
namespace {

namespace fs = std::filesystem;

constexpr const char* listPath = "/emergency_update_list.json";
constexpr const char* imageHost = "images.corvane.example";
constexpr const char* newVersion = "1.80.0";
/// Ballast in the new application, so that there is a download to watch.
constexpr std::size_t ballastBytes = std::size_t{24} << 20U;

/// The records after which a check has come to its end; those of an install that unpacked something end with "Cleaning
/// up".
constexpr std::array endsOfCheck = {
    "Check aborted, could not download",
    "Check aborted, could not parse",
    "Validation succeeded with no updates",
    "Validation succeeded with no matches",
    "Validation failed: (ValidationFailure.noActions)",
    "Dry run action triggered",
    "Installer stopped, aborting install early because replacing app files is not possible",
    "Installer stopped, download failed",
    "Installer stopped, initial verification failed",
    "Installer stopped, unarchiving failed",
    "Cleaning up",
};

HTTPSServer::Handler listHandler(const std::string& list, Transcript& transcript, std::atomic<int>& requests) {
  return [list, &transcript, &requests](const HTTPRequest& request) -> HTTPResponse {
    const bool isList = request.path == listPath;
    if (isList) ++requests;
    transcript.event(request.host, fmt::format("{} {}: {}", request.method, request.path, isList ? 200 : 404));
    return isList ? HTTPResponse{.status = 200, .body = list} : HTTPResponse{.status = 404};
  };
}

/// Serves one image whatever the path, and shows every tenth of its way.
HTTPSServer::Handler imageHandler(const fs::path& image, Transcript& transcript) {
  return [image, &transcript](const HTTPRequest& request) -> HTTPResponse {
    transcript.event(request.host, fmt::format("{} {}", request.method, request.path));
    if (image.empty()) return {.status = 404, .body = "there is no image"};
    return {.file = image,
            .progress = [&transcript, host = request.host, shown = std::size_t{0}](std::size_t sent,
                                                                                   std::size_t total) mutable {
              const std::size_t tenths = 10 * sent / std::max<std::size_t>(total, 1);
              if (tenths == shown) return;
              shown = tenths;
              transcript.event(host,
                               fmt::format("{:3} % of {:.1f} MB sent", 10 * tenths, static_cast<double>(total) / 1e6));
            }};
  };
}

/// The hosts of a list's install URLs, as far as it can be read; what is wrong with a list is for the agent to find.
std::set<std::string> imageHosts(const std::string& list) {
  std::set<std::string> hosts;
  const auto document = nlohmann::json::parse(list, nullptr, false);
  if (document.is_discarded()) return hosts;
  const auto flat = document.flatten();
  for (const auto& entry : flat.items()) {
    if (!entry.key().ends_with("/install/url") || !entry.value().is_string()) continue;
    const auto url = platform::URL::parse(entry.value().get<std::string>());
    if (url && url->scheme() == "https" && !url->host().empty()) hosts.insert(url->host());
  }
  return hosts;
}

void requireOneRequest(const std::atomic<int>& requests) {
  if (requests != 1) throw Failure(fmt::format("the list was requested {} times", requests.load()));
}

}  // namespace

void rehearseDryRun(const Stage& stage, Transcript& transcript) {
  const std::string list = R"({
    "version": "1",
    "updates": [
      { "date": "2026-11-01", "appVersions": ["1.80"], "actions": [ { "install": { "url": "https://example.invalid/app.dmg" } } ] },
      { "date": "2026-11-02", "appVersions": ["1.79"], "osVersions": ["14"], "devicePlatforms": ["arm64"],
        "actions": [ { "dryRun": {} } ] }
    ]
  })";
  std::atomic<int> requests = 0;
  Scene scene(stage, {}, transcript);
  scene.serve(CORVANE_DOWNLOAD_HOST, listHandler(list, transcript, requests));
  scene.serveCollector(CORVANE_LOG_HOST);
  scene.startAgent();
  scene.reach({"EmergencyUpdateService launching"});
  scene.reach({"Emergency update list check started"});
  scene.reach({"Dry run action triggered"});
  scene.requireCollected("Dry run action triggered");
  requireOneRequest(requests);
  scene.quitAgent();
  transcript.heading("Passed: launched, list downloaded, matched, dry run performed, terminated in order.");
}

void rehearseInstall(const Stage& stage, Transcript& transcript) {
  const std::string list = fmt::format(R"({{
    "version": "1",
    "updates": [ {{ "date": "2026-11-02", "appVersions": ["1.79"], "osVersions": ["14"], "devicePlatforms": ["arm64"],
                    "actions": [ {{ "install": {{ "url": "https://{}/Orvik.dmg" }} }} ] }} ]
  }})",
                                       imageHost);
  std::atomic<int> requests = 0;
  Scene scene(stage, {}, transcript);
  const fs::path image =
      Maker(scene, stage.prefix / "Orvik.app").pack({.version = newVersion, .ballastBytes = ballastBytes});
  transcript.fact("image", fmt::format("Orvik {} signed and packed: {:.1f} MB", newVersion,
                                       static_cast<double>(fs::file_size(image)) / 1e6));
  scene.serve(CORVANE_DOWNLOAD_HOST, listHandler(list, transcript, requests));
  scene.serveCollector(CORVANE_LOG_HOST);
  scene.serve(imageHost, imageHandler(image, transcript));
  scene.openOrvik();
  scene.showRunningOrvik("Before");
  const auto before = scene.runningOrvik();
  if (!before || before->version != "1.79.3") throw Failure("the old application does not run");

  scene.startAgent();
  scene.reach({"Install action triggered"});
  scene.requireCollected("Install action triggered");
  scene.reach({"Installation completed"});
  scene.reach({"Cleaning up"});
  scene.showRunningOrvik("After");
  const auto after = scene.runningOrvik();
  if (!after || after->version != newVersion || after->processIdentifier == before->processIdentifier) {
    throw Failure("the new application does not run");
  }
  if (after->arguments != std::vector<std::string>{"launchSourceEmergencyUpdateService"}) {
    throw Failure("the new application was not started as it should");
  }
  if (!fs::is_empty(scene.mac().sysroot() / "Volumes")) throw Failure("something is still mounted");
  requireOneRequest(requests);
  scene.quitAgent();
  kill(after->processIdentifier, SIGTERM);
  transcript.heading(fmt::format("Passed: Orvik 1.79.3 was replaced by {} and relaunched.", newVersion));
}

void rehearseOwnFiles(const Stage& stage, const Setting& setting, const OwnFiles& files, Transcript& transcript) {
  const std::string list = readFile(files.list);
  std::atomic<int> requests = 0;
  Scene scene(stage, setting, transcript);
  if (!files.anchors.empty()) {
    writeFile(scene.mac().sysroot() / "System/Library/Security/anchors.pem", readFile(files.anchors));
  }
  const auto serveImage = imageHandler(files.image, transcript);
  const auto serveList = listHandler(list, transcript, requests);
  std::set<std::string> hosts = imageHosts(list);
  hosts.erase(CORVANE_DOWNLOAD_HOST);
  hosts.erase(CORVANE_LOG_HOST);
  // With handlers of its own: the scene outlives what is declared after it.
  scene.serve(CORVANE_DOWNLOAD_HOST, [serveList, serveImage](const HTTPRequest& request) {
    return request.path == listPath ? serveList(request) : serveImage(request);
  });
  for (const std::string& host : hosts) scene.serve(host, serveImage);
  scene.serveCollector(CORVANE_LOG_HOST);
  scene.startAgent();

  std::vector<std::string> ends(endsOfCheck.begin(), endsOfCheck.end());
  ends.insert(ends.end(), {"Installation completed", "Installer stopped, replacing app files failed",
                           "Installer stopped, final verification failed"});
  const std::string end = scene.reach(ends).message;
  const bool unpacked = std::ranges::find(endsOfCheck, end) == endsOfCheck.end();
  if (unpacked) scene.reach({"Cleaning up"});
  scene.showRunningOrvik("After");
  scene.quitAgent();
  if (const auto running = scene.runningOrvik()) kill(running->processIdentifier, SIGTERM);
  if (end.starts_with("Installer stopped") || end.starts_with("Check aborted") ||
      end.starts_with("Validation failed")) {
    throw Failure("the check ended with: " + end);
  }
  transcript.heading("The check ended with: " + end);
}

}  // namespace rehearsal
