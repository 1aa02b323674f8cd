#pragma once

#include "Platform/DistributedNotificationCenter.h"
#include "Posix/FileDescriptor.h"

#include <memory>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

namespace platform::posix {

/// Notifications as datagrams: while it has observers, a socket of its own lies in the folder `distnoted` of the
/// temporary directory. One datagram is taken a turn of the loop, so a flood of them holds nothing up.
///
/// A datagram that is no JSON object with a text "name" and, if any, a text "object", or that is longer than
/// `maximumDatagramBytes`, is dropped. Without a folder to put the socket in, nothing is heard until the next
/// addObserver() finds one.
class DatagramNotificationCenter final : public DistributedNotificationCenter {
 public:
  static constexpr std::size_t maximumDatagramBytes = std::size_t{16} << 10U;

  /// Waits through `io`, which the main thread runs.
  DatagramNotificationCenter(asio::io_context& io, std::string temporaryDirectory)
      : io_(io), temporaryDirectory_(std::move(temporaryDirectory)) {}

  void addObserver(const void* observer, std::string_view name, SuspensionBehavior suspensionBehavior,
                   Callback callback) override;
  void removeObserver(const void* observer) override;
  void post(std::string_view name, const std::optional<std::string>& object) override;

 private:
  struct Registration {
    const void* observer;  // null once it is removed
    std::string name;
    Callback callback;
  };

  /// The bound socket; its file goes with it.
  struct Listener {
    Listener(FileDescriptor inFolder, std::string asFile, asio::posix::stream_descriptor bound)
        : folder(std::move(inFolder)), file(std::move(asFile)), socket(std::move(bound)) {}
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener();

    FileDescriptor folder;
    std::string file;
    asio::posix::stream_descriptor socket;
  };

  [[nodiscard]] std::shared_ptr<Listener> listen() const;
  void waitForDatagram();
  void deliver(const DistributedNotification& notification) const;

  asio::io_context& io_;
  const std::string temporaryDirectory_;
  std::vector<std::shared_ptr<Registration>> registrations_;
  std::shared_ptr<Listener> listener_;
};

}  // namespace platform::posix
