#include "Posix/DistributedNotificationPoster.h"

#include "Posix/FileDescriptor.h"
#include "Posix/SocketAddress.h"

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>

namespace platform::posix {

std::string distributedNotificationFolder(const std::string& temporaryDirectory) {
  return temporaryDirectory + "/distnoted";
}

void postDistributedNotification(const std::string& temporaryDirectory, std::string_view name,
                                 const std::optional<std::string>& object) {
  nlohmann::ordered_json notification = {{"name", name}};
  if (object) notification["object"] = *object;
  const std::string datagram = notification.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);

  const std::string folderPath = distributedNotificationFolder(temporaryDirectory);
  const FileDescriptor folder(open(folderPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const FileDescriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!folder || !sender) return;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folderPath, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string file = entry->path().filename();
    const auto address = addressInFolder(folder, file);
    if (!file.ends_with(".sock") || !address) continue;
    const ssize_t sent = sendto(sender.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&*address), sizeof *address);
    const bool isDead = sent < 0 && errno == ECONNREFUSED;
    if (isDead && entry->is_socket(error)) unlinkat(folder.get(), file.c_str(), 0);
  }
}

}  // namespace platform::posix
