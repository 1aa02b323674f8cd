#pragma once

#include "Posix/FileDescriptor.h"
#include "Rehearsal/CertificateAuthority.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include <openssl/ssl.h>

namespace campaign {

struct SSLFree {
  void operator()(SSL* connection) const { SSL_free(connection); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};

/// A port on loopback where somebody listens.
class LoopbackListener {
 public:
  LoopbackListener();

  [[nodiscard]] int descriptor() const { return socket_.get(); }
  [[nodiscard]] std::uint16_t port() const { return port_; }
  /// Whether a connection waits to be accepted.
  [[nodiscard]] bool hasCaller() const;

 private:
  platform::posix::FileDescriptor socket_;
  std::uint16_t port_ = 0;
};

/// A connection over TLS, as a server sees it.
class Connection {
 public:
  /// Its handshake may fail: then nothing is received.
  Connection(SSL_CTX* context, platform::posix::FileDescriptor socket);

  /// What the client has sent by now; empty once it has closed.
  std::string receive();
  /// False once the client has closed.
  bool send(std::string_view bytes);
  void waitForClose();
  /// Has it end the hard way once its treatment is over.
  void resetInTheEnd() const;
  /// Wakes whoever waits for the client, as if that had closed. Any thread.
  void interrupt() const;

 private:
  platform::posix::FileDescriptor socket_;
  std::unique_ptr<SSL, SSLFree> tls_;
};

/// A TLS server on loopback that treats each request as it is told, on a thread for each connection.
class FaultyServer {
 public:
  using Treatment = std::function<void(Connection&)>;

  /// The treatment is called once a request has come.
  FaultyServer(const rehearsal::Credentials& credentials, Treatment treatment);
  FaultyServer(const FaultyServer&) = delete;
  FaultyServer& operator=(const FaultyServer&) = delete;
  ~FaultyServer();

  [[nodiscard]] std::uint16_t port() const { return listener_.port(); }
  /// So far. One whose handshake fails has no request, and of several requests the first counts.
  [[nodiscard]] int connections() const { return connections_; }
  [[nodiscard]] int requests() const { return requests_; }

 private:
  void accept();

  std::unique_ptr<SSL_CTX, SSLFree> context_;
  Treatment treatment_;
  LoopbackListener listener_;
  std::atomic<int> connections_ = 0;
  std::atomic<int> requests_ = 0;
  std::mutex mutex_;
  bool isEnding_ = false;
  std::list<Connection*> open_;
  std::list<std::jthread> threads_;
  std::jthread acceptor_;
};

}  // namespace campaign
