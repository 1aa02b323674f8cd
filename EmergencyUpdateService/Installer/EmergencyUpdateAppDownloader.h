#pragma once

#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/FileManager.h"
#include "Platform/URL.h"
#include "Platform/URLSession.h"

#include <memory>
#include <optional>

namespace corvane {

/// Fetches one disk image, up to three times, into a folder of its own under the temporary directory.
/// Stateless between calls; blocks the calling thread until the session has answered, for as long as the session's own
/// time-outs allow.
class EmergencyUpdateAppDownloader : public std::enable_shared_from_this<EmergencyUpdateAppDownloader> {
 public:
  using NetworkSession = platform::URLSession;
  using NetworkSessionDownloadTask = platform::URLSessionTask;

  EmergencyUpdateAppDownloader(EmergencyUpdateServiceLogger logger, std::shared_ptr<NetworkSession> networkSession,
                               platform::FileManager& fileManager, const platform::SearchPaths& searchPaths)
      : logger_(logger),
        networkSession_(std::move(networkSession)),
        fileManager_(fileManager),
        searchPaths_(searchPaths) {}

  /// The downloaded file, which is the caller's from now on; absent when all attempts failed. The response is not
  /// looked at: an error page is a file like another. Must be owned by a shared_ptr.
  std::optional<platform::URL> download(const platform::URL& from);

 private:
  std::optional<platform::URL> downloadOnce(const platform::URL& from);
  [[nodiscard]] std::optional<platform::URL> moveToTemporaryFolder(const std::optional<platform::URL>& location) const;

  EmergencyUpdateServiceLogger logger_;
  std::shared_ptr<NetworkSession> networkSession_;
  platform::FileManager& fileManager_;
  const platform::SearchPaths& searchPaths_;
};

}  // namespace corvane
