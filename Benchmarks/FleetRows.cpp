#include "Benchmarks/AgentScene.h"
#include "Benchmarks/Rows.h"
#include "Rehearsal/Maker.h"

#include <deque>
#include <thread>
#include <vector>

#include <asio.hpp>
#include <fmt/format.h>
#include <sys/socket.h>

namespace benchmarks {
namespace {

using asio::ip::tcp;

/// Stands before the server of a host and counts what passes: TLS records with all that belongs to them, without the
/// headers of TCP and IP.
class Relay {
 public:
  Relay(const rehearsal::Scene& scene, const std::string& host)
      : acceptor_(io_, {asio::ip::address_v4::loopback(), 0}) {
    const auto file = scene.mac().sysroot() / "etc/connect-to";
    const std::string lines = rehearsal::readFile(file);
    const std::string entry = host + ":443:127.0.0.1:";
    const auto port = static_cast<std::uint16_t>(std::stoul(lines.substr(lines.find(entry) + entry.size())));
    rehearsal::writeFile(file, fmt::format("{}{}\n{}", entry, acceptor_.local_endpoint().port(), lines));
    accepting_ = std::jthread([this, port] { accept({asio::ip::address_v4::loopback(), port}); });
  }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay() {
    shutdown(acceptor_.native_handle(), SHUT_RDWR);
    accepting_.join();
    for (tcp::socket& socket : sockets_) shutdown(socket.native_handle(), SHUT_RDWR);
  }

  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

 private:
  void accept(const tcp::endpoint& server) {
    while (true) {
      std::error_code end;
      tcp::socket& client = sockets_.emplace_back(io_);
      tcp::socket& upstream = sockets_.emplace_back(io_);
      acceptor_.accept(client, end);
      if (!end) upstream.connect(server, end);
      if (end) return;
      pumps_.emplace_back([&] { pump(client, upstream); });
      pumps_.emplace_back([&] { pump(upstream, client); });
    }
  }

  void pump(tcp::socket& from, tcp::socket& to) {
    std::vector<char> buffer(std::size_t{64} << 10U);
    std::error_code end;
    while (!end) {
      const std::size_t count = from.read_some(asio::buffer(buffer), end);
      bytes_ += count;
      if (!end) asio::write(to, asio::buffer(buffer, count), end);
    }
    shutdown(to.native_handle(), SHUT_WR);
  }

  asio::io_context io_;
  tcp::acceptor acceptor_;
  std::atomic<std::uint64_t> bytes_ = 0;
  std::deque<tcp::socket> sockets_;
  std::vector<std::jthread> pumps_;
  std::jthread accepting_;
};

/// What one host had to do.
struct Load {
  double requests = 0;
  double bytes = 0;
};
Load operator+(const Load& a, const Load& b) {
  return {a.requests + b.requests, a.bytes + b.bytes};
}
Load operator*(double factor, const Load& load) {
  return {factor * load.requests, factor * load.bytes};
}

/// What the hosts that every agent asks had to do.
struct Loads {
  Load list;
  Load collector;
};
Loads operator+(const Loads& a, const Loads& b) {
  return {a.list + b.list, a.collector + b.collector};
}
Loads operator*(double factor, const Loads& loads) {
  return {factor * loads.list, factor * loads.collector};
}

/// What so many agents ask is spread evenly over the day.
void add(Table& table, const std::string& when, const Loads& day) {
  constexpr double agents = 10e6;
  constexpr double secondsADay = 86400;
  const auto ofOne = [](const Load& load) { return fmt::format("{} requests, {}", load.requests, size(load.bytes)); };
  const auto ofAll = [](const Load& load) {
    return fmt::format("{:.0f} requests a second, {} a day", agents * load.requests / secondsADay,
                       size(agents * load.bytes));
  };
  table.note(fmt::format("{}: an agent", when),
             fmt::format("list: {}; records: {}", ofOne(day.list), ofOne(day.collector)));
  table.note(fmt::format("{}: ten million agents", when),
             fmt::format("list: {}; records: {}", ofAll(day.list), ofAll(day.collector)));
}

}  // namespace

void fleetRows(const Plan& plan, Table& table) {
  AgentScene on(plan, emptyList);
  const Relay list(on.scene(), listHost);
  const Relay collector(on.scene(), logHost);
  on.serveImage(rehearsal::Maker(on.scene(), plan.prefix / "Orvik.app").pack({}));
  const auto soFar = [&] {
    on.settle();
    const auto load = [](std::size_t requests, const Relay& relay) {
      return Load{static_cast<double>(requests), static_cast<double>(relay.bytes())};
    };
    return Loads{load(on.listRequests(), list), load(on.records(), collector)};
  };
  on.hurry();
  const Loads launch = soFar();
  on.check(1, quietCheck);
  const Loads quiet = soFar() + (-1 * launch);
  on.setList(installList("1.79"));
  on.check(1, completeInstall);
  const Loads install = soFar() + (-1 * (launch + quiet));
  constexpr int checksADay = 6;
  add(table, "a day without an action", checksADay * quiet);
  add(table, "a day with an install, its image not counted", ((checksADay - 1) * quiet) + install);
  add(table, "a launch with its check, one a day", launch);
}

}  // namespace benchmarks
