#include "Benchmarks/Relay.h"

#include <vector>

namespace benchmarks {
namespace {

using asio::ip::tcp;

tcp::endpoint onLoopback(std::uint16_t port) {
  return {asio::ip::address_v4::loopback(), port};
}

}  // namespace

Relay::Relay(std::uint16_t serverPort) : acceptor_(io_, onLoopback(0)) {
  asio::co_spawn(io_, accept(onLoopback(serverPort)), asio::detached);
  thread_ = std::jthread([this] { io_.run(); });
}

Relay::~Relay() {
  io_.stop();
}

asio::awaitable<void> Relay::accept(tcp::endpoint server) {
  while (true) {
    const auto client = std::make_shared<Socket>(co_await acceptor_.async_accept(asio::use_awaitable));
    const auto upstream = std::make_shared<Socket>(io_);
    co_await upstream->async_connect(server, asio::use_awaitable);
    ++connections_;
    asio::co_spawn(io_, pump(client, upstream), asio::detached);
    asio::co_spawn(io_, pump(upstream, client), asio::detached);
  }
}

asio::awaitable<void> Relay::pump(std::shared_ptr<Socket> from, std::shared_ptr<Socket> to) {
  std::vector<char> buffer(std::size_t{64} << 10U);
  try {
    while (true) {
      const std::size_t count = co_await from->async_read_some(asio::buffer(buffer), asio::use_awaitable);
      bytes_ += count;
      co_await asio::async_write(*to, asio::buffer(buffer, count), asio::use_awaitable);
    }
  } catch (const std::system_error&) {
    std::error_code ignored;
    to->shutdown(Socket::shutdown_send, ignored);
  }
}

}  // namespace benchmarks
