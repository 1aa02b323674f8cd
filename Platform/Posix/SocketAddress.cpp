#include "Posix/SocketAddress.h"

#include <sys/socket.h>

namespace platform::posix {

std::optional<sockaddr_un> addressInFolder(const FileDescriptor& folder, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(folder.get()) + "/" + name;
  if (path.size() >= sizeof address.sun_path) return std::nullopt;
  path.copy(static_cast<char*>(address.sun_path), path.size());
  return address;
}

}  // namespace platform::posix
