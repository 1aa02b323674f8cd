#pragma once

#include "Posix/FileDescriptor.h"

#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace fakes {

/// A server on loopback that treats each connection as the test says, one after the other: for what no well-behaved
/// server does.
class RawServer {
 public:
  explicit RawServer(std::function<void(int connection)> treat)
      : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    listen(listener_.get(), 8);
    thread_ = std::thread([this, treat = std::move(treat)] {
      while (true) {
        const platform::posix::FileDescriptor connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!connection) return;
        treat(connection.get());
      }
    });
  }
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;
  ~RawServer() {
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }

  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] std::string url() const { return fmt::format("http://127.0.0.1:{}/", port_); }
  /// Where nobody listens any more.
  static std::uint16_t refusingPort() {
    return RawServer([](int) {}).port();
  }

  /// Reads until the other side closes.
  static void waitForClose(int connection) {
    std::string bytes(4096, '\0');
    while (recv(connection, bytes.data(), bytes.size(), 0) > 0) {
    }
  }
  /// Whether there was a request to answer.
  static bool answer(int connection, const std::string& bytes) {
    std::string request(4096, '\0');
    const bool isAsked = recv(connection, request.data(), request.size(), 0) > 0;
    send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return isAsked;
  }
  static std::function<void(int)> answering(const std::string& bytes) {
    return [bytes](int connection) { answer(connection, bytes); };
  }

 private:
  platform::posix::FileDescriptor listener_;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

}  // namespace fakes
