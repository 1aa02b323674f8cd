#include "Campaign/FaultyServer.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace campaign {

using platform::posix::FileDescriptor;

Connection::Connection(SSL_CTX* context, FileDescriptor socket) : socket_(std::move(socket)), tls_(SSL_new(context)) {
  SSL_set_fd(tls_.get(), socket_.get());
  SSL_set_accept_state(tls_.get());
}

std::string Connection::receive() {
  std::array<char, 16384> bytes{};
  const int count = SSL_read(tls_.get(), bytes.data(), static_cast<int>(bytes.size()));
  return {bytes.data(), static_cast<std::size_t>(std::max(count, 0))};
}

bool Connection::send(std::string_view bytes) {
  return bytes.empty() || SSL_write(tls_.get(), bytes.data(), static_cast<int>(bytes.size())) > 0;
}

void Connection::waitForClose() {
  while (!receive().empty()) {
  }
}

void Connection::reset() {
  const linger now{.l_onoff = 1, .l_linger = 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
  socket_.reset();
}

void Connection::interrupt() const {
  shutdown(socket_.get(), SHUT_RDWR);
}

FaultyServer::FaultyServer(const rehearsal::Credentials& credentials, Treatment treatment)
    : context_(SSL_CTX_new(TLS_server_method())),
      treatment_(std::move(treatment)),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  SSL_CTX_use_certificate(context_.get(), credentials.certificate.get());
  SSL_CTX_use_PrivateKey(context_.get(), credentials.key.get());
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("no loopback port to be had for a server");
  }
  socklen_t length = sizeof address;
  getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  listen(listener_.get(), SOMAXCONN);
  acceptor_ = std::jthread([this] { accept(); });
}

FaultyServer::~FaultyServer() {
  shutdown(listener_.get(), SHUT_RDWR);
  acceptor_.join();
  const std::lock_guard lock(mutex_);
  isEnding_ = true;
  for (const Connection* connection : open_) connection->interrupt();
}

void FaultyServer::accept() {
  while (true) {
    FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) return;
    threads_.emplace_back([this, socket = std::move(socket)]() mutable {
      Connection connection(context_.get(), std::move(socket));
      {
        const std::lock_guard lock(mutex_);
        if (isEnding_) return;
        open_.push_back(&connection);
      }
      if (!connection.receive().empty()) treatment_(connection);
      const std::lock_guard lock(mutex_);
      open_.remove(&connection);
    });
  }
}

}  // namespace campaign
