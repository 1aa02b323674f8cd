#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include <asio.hpp>

namespace benchmarks {

/// Stands before a server on loopback and counts what passes: TLS records with all that belongs to them, without the
/// headers of TCP and IP.
class Relay {
 public:
  explicit Relay(std::uint16_t serverPort);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay();

  [[nodiscard]] std::uint16_t port() const { return acceptor_.local_endpoint().port(); }
  [[nodiscard]] std::uint64_t connections() const { return connections_; }
  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

 private:
  using Socket = asio::ip::tcp::socket;
  asio::awaitable<void> accept(asio::ip::tcp::endpoint server);
  asio::awaitable<void> pump(std::shared_ptr<Socket> from, std::shared_ptr<Socket> to);

  asio::io_context io_;
  asio::ip::tcp::acceptor acceptor_;
  std::atomic<std::uint64_t> connections_ = 0;
  std::atomic<std::uint64_t> bytes_ = 0;
  std::jthread thread_;
};

}  // namespace benchmarks
