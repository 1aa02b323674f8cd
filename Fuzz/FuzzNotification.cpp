#include "Extensions/StringExtensions.h"
#include "FuzzSupport.h"
#include "Posix/DatagramNotificationCenter.h"

#include <vector>

#include <sys/socket.h>
#include <sys/un.h>

namespace {

using namespace platform;

/// A notification centre, and a stranger who can reach its socket.
class Post {
 public:
  Post() {
    center_.addObserver(this, "known", SuspensionBehavior::deliverImmediately, [](const DistributedNotification&) {});
    const std::filesystem::path socket = *std::filesystem::directory_iterator(folder_.path() + "/distnoted");
    address_.sun_family = AF_UNIX;
    socket.string().copy(address_.sun_path, sizeof address_.sun_path - 1);
  }

  /// What an observer of the name hears of this datagram.
  std::vector<DistributedNotification> hear(std::string_view name, std::string_view datagram) {
    return heardWhile(name, [&] {
      ::sendto(sender_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&address_), sizeof address_);
    });
  }
  std::vector<DistributedNotification> hearPosted(std::string_view name, const std::optional<std::string>& object) {
    return heardWhile(name, [&] { center_.post(name, object); });
  }

 private:
  using SuspensionBehavior = DistributedNotificationCenter::SuspensionBehavior;

  template <class Action>
  std::vector<DistributedNotification> heardWhile(std::string_view name, Action act) {
    std::vector<DistributedNotification> heard;
    center_.addObserver(&heard, name, SuspensionBehavior::deliverImmediately,
                        [&heard](const DistributedNotification& one) { heard.push_back(one); });
    act();
    io_.poll();
    center_.removeObserver(&heard);
    return heard;
  }

  fuzz::Folder folder_;
  asio::io_context io_;
  posix::DatagramNotificationCenter center_{io_, folder_.path()};
  posix::FileDescriptor sender_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  sockaddr_un address_{};
};

}  // namespace

/// Datagrams as anybody may send them, and the same bytes as the texts of a notification posted here, which must
/// arrive.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Post post;
  const std::string_view bytes = fuzz::textOf(data, size);
  for (const auto& one : post.hear("name", bytes)) fuzz::require(one.name == "name");
  constexpr std::size_t longestText = 1000;
  const std::string object(bytes.substr(0, longestText));
  if (!corvane::isUTF8(object)) return 0;
  const auto heard = post.hearPosted(object + "!", object);
  fuzz::require(heard.size() == 1 && heard[0].name == object + "!" && heard[0].object == object);
  return 0;
}
