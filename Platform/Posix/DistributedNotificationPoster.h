#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform::posix {

/// Posts a distributed notification: one datagram, the JSON object {"name": …[, "object": …]}, to every socket in the
/// folder `distnoted` of the temporary directory. Never waits: an observer whose queue is full misses it. A socket that
/// nobody listens on any more is removed.
void postDistributedNotification(const std::string& temporaryDirectory, std::string_view name,
                                 const std::optional<std::string>& object = std::nullopt);

/// The folder of the observers' sockets.
std::string distributedNotificationFolder(const std::string& temporaryDirectory);

}  // namespace platform::posix
