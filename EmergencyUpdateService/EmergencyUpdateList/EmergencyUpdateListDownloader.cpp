#include "EmergencyUpdateList/EmergencyUpdateListDownloader.h"

namespace corvane {

std::optional<std::string> EmergencyUpdateListDownloader::download() const {
  auto body = urlContents_.contents(url_);
  if (!body) {
    logger_.error({"Failed to download emergency update list"}, at("download()"));
    return std::nullopt;
  }
  return std::move(*body);
}

}  // namespace corvane
