#pragma once

#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/URL.h"
#include "Platform/URLContents.h"

#include <optional>
#include <string>

namespace corvane {

/// Fetches the list document. Any thread; blocks it for the whole transfer, which is limited by the platform
/// alone: its time-outs and URLContents' bytes.
class EmergencyUpdateListDownloader {
 public:
  EmergencyUpdateListDownloader(EmergencyUpdateServiceLogger logger, platform::URL url,
                                platform::URLContents& urlContents)
      : logger_(logger), url_(std::move(url)), urlContents_(urlContents) {}

  /// The whole body, whatever the HTTP status; absent, after one `error` record, when none could be had.
  [[nodiscard]] std::optional<std::string> download() const;

 private:
  EmergencyUpdateServiceLogger logger_;
  platform::URL url_;
  platform::URLContents& urlContents_;
};

}  // namespace corvane
