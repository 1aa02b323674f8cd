#include "Campaign/FaultyServer.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace campaign {

using platform::posix::FileDescriptor;

LoopbackListener::LoopbackListener() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(socket_.get(), SOMAXCONN) != 0) {
    throw std::runtime_error("no loopback port to be had for a server");
  }
  socklen_t length = sizeof address;
  getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
}

bool LoopbackListener::hasCaller() const {
  pollfd caller{.fd = socket_.get(), .events = POLLIN, .revents = 0};
  return poll(&caller, 1, 0) == 1;
}

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

void Connection::resetInTheEnd() const {
  const linger now{.l_onoff = 1, .l_linger = 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

void Connection::interrupt() const {
  shutdown(socket_.get(), SHUT_RDWR);
}

FaultyServer::FaultyServer(const rehearsal::Credentials& credentials, Treatment treatment)
    : context_(SSL_CTX_new(TLS_server_method())), treatment_(std::move(treatment)) {
  SSL_CTX_use_certificate(context_.get(), credentials.certificate.get());
  SSL_CTX_use_PrivateKey(context_.get(), credentials.key.get());
  acceptor_ = std::jthread([this] { accept(); });
}

FaultyServer::~FaultyServer() {
  shutdown(listener_.descriptor(), SHUT_RDWR);
  acceptor_.join();
  const std::lock_guard lock(mutex_);
  isEnding_ = true;
  for (const Connection* connection : open_) connection->interrupt();
}

void FaultyServer::accept() {
  while (true) {
    FileDescriptor socket(accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) return;
    ++connections_;
    threads_.emplace_back([this, socket = std::move(socket)]() mutable {
      Connection connection(context_.get(), std::move(socket));
      {
        const std::lock_guard lock(mutex_);
        if (isEnding_) return;
        open_.push_back(&connection);
      }
      if (!connection.receive().empty()) {
        ++requests_;
        treatment_(connection);
      }
      const std::lock_guard lock(mutex_);
      open_.remove(&connection);
    });
  }
}

}  // namespace campaign
