#include "Posix/DatagramNotificationCenter.h"

#include "Platform/UUID.h"
#include "Posix/DistributedNotificationPoster.h"
#include "Posix/RegularFile.h"
#include "Posix/SocketAddress.h"

#include <system_error>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::posix {
namespace {

std::optional<DistributedNotification> decoded(std::string_view datagram) {
  const auto json = nlohmann::json::parse(datagram, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) return std::nullopt;
  const auto name = json.find("name");
  const auto object = json.find("object");
  if (name == json.end() || !name->is_string()) return std::nullopt;
  if (object == json.end()) return DistributedNotification{.name = name->get<std::string>(), .object = std::nullopt};
  if (!object->is_string()) return std::nullopt;
  return DistributedNotification{.name = name->get<std::string>(), .object = object->get<std::string>()};
}

/// The datagram that waits, if one does and it is a notification.
std::optional<DistributedNotification> received(int socket) {
  std::string datagram(DatagramNotificationCenter::maximumDatagramBytes, '\0');
  const ssize_t length = recv(socket, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (length < 0 || static_cast<std::size_t>(length) > datagram.size()) return std::nullopt;
  return decoded(std::string_view(datagram).substr(0, static_cast<std::size_t>(length)));
}

}  // namespace

DatagramNotificationCenter::Listener::~Listener() {
  unlinkat(folder.get(), file.c_str(), 0);
}

std::shared_ptr<DatagramNotificationCenter::Listener> DatagramNotificationCenter::listen() const {
  const std::string path = distributedNotificationFolder(temporaryDirectory_);
  if (makeFolders(path, 0700) != 0) return nullptr;
  FileDescriptor folder(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!folder || !socket) return nullptr;
  std::string file = makeUUID() + ".sock";
  const auto address = addressInFolder(folder, file);
  if (!address || bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
    return nullptr;
  }
  // What tidies up temporary folders leaves sticky files alone; it cannot tell that this one is in use.
  static_cast<void>(fchmodat(folder.get(), file.c_str(), S_ISVTX | 0700, 0));
  auto listener = std::make_shared<Listener>(std::move(folder), std::move(file), asio::posix::stream_descriptor(io_));
  asio::error_code failure;
  if (listener->socket.assign(socket.get(), failure); failure) return nullptr;
  static_cast<void>(socket.release());
  return listener;
}

void DatagramNotificationCenter::addObserver(const void* observer, std::string_view name,
                                             SuspensionBehavior /*suspensionBehavior*/, Callback callback) {
  registrations_.push_back(std::make_shared<Registration>(observer, std::string(name), std::move(callback)));
  if (listener_) return;
  listener_ = listen();
  if (listener_) waitForDatagram();
}

void DatagramNotificationCenter::removeObserver(const void* observer) {
  std::erase_if(registrations_, [observer](const auto& registration) {
    if (registration->observer != observer) return false;
    registration->observer = nullptr;
    return true;
  });
  if (registrations_.empty()) listener_.reset();
}

void DatagramNotificationCenter::post(std::string_view name, const std::optional<std::string>& object) {
  postDistributedNotification(temporaryDirectory_, name, object);
}

void DatagramNotificationCenter::waitForDatagram() {
  // A wait that has ended but not been told yet outlives its socket, so it asks whether that is still there.
  const auto wait = asio::posix::stream_descriptor::wait_read;
  listener_->socket.async_wait(wait, [this, weak = std::weak_ptr(listener_)](const std::error_code& error) {
    if (error || weak.expired()) return;
    const auto notification = received(listener_->socket.native_handle());
    if (notification) deliver(*notification);
    if (!weak.expired()) waitForDatagram();
  });
}

void DatagramNotificationCenter::deliver(const DistributedNotification& notification) const {
  const auto registrations = registrations_;  // callbacks add and remove
  for (const auto& registration : registrations) {
    const bool observes = registration->observer != nullptr && registration->name == notification.name;
    if (observes) registration->callback(notification);
  }
}

}  // namespace platform::posix
