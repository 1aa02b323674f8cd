#include "Posix/CurlURLSession.h"
#include "Posix/ThreadSerialQueue.h"
#include "Rehearsal/HTTPSServer.h"
#include "Support/Machine.h"
#include "Support/RawServer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <poll.h>

using namespace std::chrono_literals;
using fakes::RawServer;

namespace {

constexpr const char* host = "data.example";
constexpr const char* redirect = "HTTP/1.1 307 There\r\nLocation: /there\r\nContent-Length: 0\r\n\r\n";
constexpr const char* exclamation = "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n!";

/// Waits until the server on this port has closed, or begun to close, all connections of this process.
void awaitEnds(std::uint16_t port) {
  for (int socket = 0; socket < 1024; ++socket) {
    sockaddr_in server = {};
    socklen_t length = sizeof server;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&server), &length) != 0) continue;
    if (server.sin_family != AF_INET || ntohs(server.sin_port) != port) continue;
    pollfd end{.fd = socket, .events = POLLIN | POLLRDHUP, .revents = 0};
    EXPECT_EQ(poll(&end, 1, 60000), 1);
  }
}

/// The server's end of a connection over TLS.
class TLSConnection {
 public:
  TLSConnection(SSL_CTX* context, int connection) : connection_(connection), tls_(SSL_new(context), SSL_free) {
    SSL_set_fd(tls_.get(), connection);
    SSL_accept(tls_.get());
  }
  [[nodiscard]] SSL* get() const { return tls_.get(); }
  /// Whether there was something to read.
  [[nodiscard]] bool read() const {
    std::array<char, 4096> request{};
    return SSL_read(tls_.get(), request.data(), request.size()) > 0;
  }
  void write(const char* text) const { SSL_write(tls_.get(), text, static_cast<int>(std::strlen(text))); }
  void close() const {
    SSL_shutdown(tls_.get());
    shutdown(connection_.get(), SHUT_RDWR);
  }
  /// From that which has something first.
  static bool readFromEither(const TLSConnection& one, const TLSConnection& other) {
    std::array<pollfd, 2> both{};
    both[0] = {.fd = one.connection_.get(), .events = POLLIN, .revents = 0};
    both[1] = {.fd = other.connection_.get(), .events = POLLIN, .revents = 0};
    poll(both.data(), both.size(), 60000);
    return (both[0].revents != 0 ? one : other).read();
  }

 private:
  platform::posix::FileDescriptor connection_;
  std::unique_ptr<SSL, decltype(&SSL_free)> tls_;
};

/// A certificate that the Mac trusts.
class TLSContext {
 public:
  explicit TLSContext(rehearsal::StandInMac& mac) {
    SSL_CTX_use_certificate(context_.get(), credentials_.certificate.get());
    SSL_CTX_use_PrivateKey(context_.get(), credentials_.key.get());
    mac.trust(authority_.certificatePEM());
  }
  [[nodiscard]] std::unique_ptr<TLSConnection> accept(int connection) const {
    return std::make_unique<TLSConnection>(context_.get(), connection);
  }

 private:
  rehearsal::CertificateAuthority authority_;
  rehearsal::Credentials credentials_ = authority_.issue(host);
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_{SSL_CTX_new(TLS_server_method()), SSL_CTX_free};
};

/// Data tasks against servers of every kind.
class DataTasks : public testing::Test {
 protected:
  rehearsal::StandInMac mac;
  std::shared_ptr<platform::URLSession> session = platform::posix::CurlURLSessions(fakes::machine(mac)).session({});

  /// "STATUS body", or the error's code.
  std::future<std::string> start(const std::string& url, double timeout = 60) const {
    auto promise = std::make_shared<std::promise<std::string>>();
    const platform::URLRequest request{
        .url = *platform::URL::parse(url), .timeoutInterval = timeout, .httpMethod = "POST", .httpBody = "body"};
    session
        ->dataTask(request,
                   [promise](const auto& data, const auto& response, const auto& error) {
                     promise->set_value(error ? std::to_string(error->code())
                                              : fmt::format("{} {}", response->statusCode, *data));
                   })
        ->resume();
    return promise->get_future();
  }
};

TEST_F(DataTasks, EndOneWayOrAnother) {
  const RawServer silent(RawServer::waitForClose);
  const RawServer drip([](int connection) {
    RawServer::answer(connection, "HTTP/1.1 200 OK\r\n\r\n");
    pollfd closed{.fd = connection, .events = POLLRDHUP, .revents = 0};
    while (poll(&closed, 1, 50) == 0) ::send(connection, ".", 1, MSG_NOSIGNAL);
  });
  const RawServer large([](int connection) {
    RawServer::answer(connection, "HTTP/1.1 200 OK\r\n\r\n" + std::string(300000, 'x'));
    RawServer::waitForClose(connection);
  });
  const RawServer failing(RawServer::answering("HTTP/1.1 500 No\r\nContent-Length: 4\r\n\r\nsorr"));
  auto hangs = start(silent.url(), 1);
  auto drips = start(drip.url(), 1);
  EXPECT_EQ(start(failing.url()).get(), "500 sorr");
  EXPECT_EQ(start(large.url()).get(), "-1103");
  EXPECT_EQ(start(fmt::format("http://127.0.0.1:{}/", RawServer::refusingPort())).get(), "-1004");
  EXPECT_EQ(start("file:///etc/passwd").get(), "-1002");
  EXPECT_EQ(hangs.get(), "-1001");
  EXPECT_EQ(drips.get(), "-1001");
}

TEST_F(DataTasks, ShareAConnectionAndAreSentOnce) {
  std::atomic<int> connections = 0;
  std::atomic<int> requests = 0;
  const RawServer server([&](int connection) {
    ++connections;
    for (const char* answer : {redirect, exclamation, exclamation, ""}) {
      requests += RawServer::answer(connection, answer) ? 1 : 0;
    }
  });
  for (int i = 0; i < 2; ++i) EXPECT_EQ(start(server.url()).get(), "200 !");
  EXPECT_EQ(connections, 1);
  EXPECT_EQ(start(server.url()).get(), "-1005") << "closed without an answer, but maybe acted upon";
  session.reset();
  EXPECT_EQ(requests, 4);
}

TEST_F(DataTasks, AreUnderWayByTheHandful) {
  std::mutex mutex;
  std::condition_variable change;
  int now = 0;
  int most = 0;
  bool wereSix = false;
  const rehearsal::CertificateAuthority authority;
  const rehearsal::HTTPSServer server(authority.issue(host), [&](const auto&) {
    std::unique_lock lock(mutex);
    most = std::max(most, ++now);
    wereSix = wereSix || now == 6;
    change.notify_all();
    EXPECT_TRUE(change.wait_for(lock, 60s, [&] { return wereSix; }));
    --now;
    return rehearsal::HTTPResponse{.body = "!"};
  });
  mac.trust(authority.certificatePEM());
  mac.connect(host, server.port());
  std::vector<std::future<std::string>> answers;
  for (int i = 0; i < 30; ++i) answers.push_back(start(fmt::format("https://{}/", host)));
  for (auto& answer : answers) EXPECT_EQ(answer.get(), "200 !");
  {
    const std::lock_guard lock(mutex);
    EXPECT_EQ(most, 6);
  }
  session.reset();
}

TEST_F(DataTasks, DoNotCountOnConnectionsThatTheServerHasClosed) {
  std::atomic<int> requests = 0;
  const rehearsal::CertificateAuthority authority;
  const auto answer = [&](const auto&) {
    ++requests;
    return rehearsal::HTTPResponse{.body = "!"};
  };
  const rehearsal::HTTPSServer server(authority.issue(host), answer, 1s);
  mac.trust(authority.certificatePEM());
  mac.connect(host, server.port());
  for (const int together : {6, 1, 6}) {
    std::vector<std::future<std::string>> answers;
    for (int i = 0; i < together; ++i) answers.push_back(start(fmt::format("https://{}/", host)));
    for (auto& each : answers) EXPECT_EQ(each.get(), "200 !");
    awaitEnds(server.port());
  }
  session.reset();
  EXPECT_EQ(requests, 13);
}

TEST_F(DataTasks, DoNotCountOnConnectionsThatTheServerIsClosing) {
  const TLSContext context(mac);
  const RawServer server([&](int connection) {
    const auto tls = context.accept(dup(connection));
    if (tls->read()) tls->write(exclamation);
    SSL_shutdown(tls->get());  // says so, and leaves it to the client to close
    RawServer::waitForClose(connection);
  });
  mac.connect(host, server.port());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(start(fmt::format("https://{}/", host)).get(), "200 !");
    awaitEnds(server.port());
  }
  session.reset();
}

TEST_F(DataTasks, AreNotSentAgainOnAnotherConnectionThatEnds) {
  const TLSContext context(mac);
  std::atomic<int> requests = 0;
  std::vector<std::unique_ptr<TLSConnection>> connections;  // the server's alone
  const RawServer server([&](int connection) {
    connections.push_back(context.accept(dup(connection)));
    requests += connections.back()->read() ? 1 : 0;
    if (connections.size() == 1) return;
    for (const auto& each : connections) each->write(exclamation);
    if (connections.size() > 2) return;
    requests += TLSConnection::readFromEither(*connections[0], *connections[1]) ? 1 : 0;
    for (const auto& each : connections) each->close();
  });
  mac.connect(host, server.port());
  auto one = start(fmt::format("https://{}/", host));
  auto another = start(fmt::format("https://{}/", host));
  EXPECT_EQ(one.get() + another.get(), "200 !200 !");
  EXPECT_EQ(start(fmt::format("https://{}/", host)).get(), "-1005");
  session.reset();
  EXPECT_EQ(requests, 3);
}

TEST(SerialQueue, RunsInOrderAndNotWhileSuspended) {
  const auto queue = platform::posix::ThreadSerialQueues().serialQueue("test.Queue");
  std::vector<int> ran;  // by the queue alone
  std::promise<void> half;
  std::promise<void> done;
  queue->resume();  // before the suspend() it belongs to
  queue->suspend();
  queue->suspend();
  for (int i = 0; i < 1000; ++i) {
    queue->async([&, i] {
      ran.push_back(i);
      if (i != 499) return;
      queue->suspend();
      half.set_value();
    });
  }
  EXPECT_TRUE(ran.empty());
  queue->resume();
  half.get_future().wait();
  queue->async([&] { done.set_value(); });
  EXPECT_EQ(ran.size(), 500U) << "suspended from within";
  queue->resume();
  done.get_future().wait();
  ASSERT_EQ(ran.size(), 1000U);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
}

}  // namespace
