#include "Installer/EmergencyUpdateAppDownloader.h"

#include "Errors/AnyError.h"
#include "Platform/UUID.h"

#include <semaphore>

namespace corvane {
namespace {

constexpr int maximumAttempts = 3;

/// What the completion leaves for the thread that waits for it.
struct Attempt {
  std::optional<platform::NSError> error;
  std::optional<platform::URL> result;
  std::binary_semaphore completed{0};
};

}  // namespace

std::optional<platform::URL> EmergencyUpdateAppDownloader::download(const platform::URL& from) {
  for (int attempt = 0; attempt < maximumAttempts; ++attempt) {
    logger_.info({"Download attempt {}/{}", attempt, "3"}, at("download(from:)"));
    if (auto file = downloadOnce(from)) return file;
  }
  return std::nullopt;
}

std::optional<platform::URL> EmergencyUpdateAppDownloader::downloadOnce(const platform::URL& from) {
  const auto attempt = std::make_shared<Attempt>();
  const auto task = networkSession_->downloadTask(
      from, [attempt, weak = weak_from_this()](const std::optional<platform::URL>& location,
                                               const std::optional<platform::URLResponse>& /*response*/,
                                               const std::optional<platform::NSError>& error) {
        attempt->error = error;
        // The session's file goes when this returns, so it is moved here and now.
        if (const auto downloader = weak.lock()) attempt->result = downloader->moveToTemporaryFolder(location);
        attempt->completed.release();
      });
  task->resume();
  attempt->completed.acquire();
  if (const auto& error = attempt->error) {
    logger_.error({"App download failed: {}", sanitizedDescription(*error)}, at("downloadOnce(from:)"));
    return std::nullopt;
  }
  return attempt->result;
}

std::optional<platform::URL> EmergencyUpdateAppDownloader::moveToTemporaryFolder(
    const std::optional<platform::URL>& location) const {
  if (!location) return std::nullopt;
  const platform::URL folder = searchPaths_.temporaryDirectory().appendingPathComponent(
      platform::makeUUID(), platform::URL::PathKind::directory);
  platform::URL destination = folder.appendingPathComponent(location->lastPathComponent());
  auto moved = fileManager_.createDirectory(folder);
  if (moved) moved = fileManager_.moveItem(*location, destination);
  if (!moved) {
    logger_.error({"App download failed, couldn't copy to temporary folder: {}", sanitizedDescription(moved.error())},
                  at("moveToTemporaryFolder(_:)"));
    return std::nullopt;
  }
  return destination;
}

}  // namespace corvane
