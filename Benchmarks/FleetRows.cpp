#include "Benchmarks/HurriedScene.h"
#include "Benchmarks/Relay.h"
#include "Benchmarks/Rows.h"
#include "Rehearsal/Maker.h"

#include <sstream>

#include <fmt/format.h>

namespace benchmarks {
namespace {

constexpr double agents = 10e6;
constexpr int checksADay = 6;

/// What one host had to do for one agent.
struct Load {
  double requests = 0;
  double connections = 0;
  double bytes = 0;

  Load operator+(const Load& other) const {
    return {requests + other.requests, connections + other.connections, bytes + other.bytes};
  }
  Load operator-(const Load& other) const {
    return {requests - other.requests, connections - other.connections, bytes - other.bytes};
  }
  Load operator*(double factor) const { return {requests * factor, connections * factor, bytes * factor}; }
};

/// What all hosts had to do.
struct Loads {
  Load list;
  Load collector;
};

/// Puts a relay before the server of a host.
std::unique_ptr<Relay> relayTo(const rehearsal::Scene& scene, const std::string& host) {
  const auto file = scene.mac().sysroot() / "etc/connect-to";
  const std::string connections = rehearsal::readFile(file);
  const std::string entry = host + ":443:127.0.0.1:";
  const auto port = static_cast<std::uint16_t>(std::stoul(connections.substr(connections.find(entry) + entry.size())));
  auto relay = std::make_unique<Relay>(port);
  rehearsal::writeFile(file, fmt::format("{}{}\n{}", entry, relay->port(), connections));
  return relay;
}

void addLoad(Table& table, const std::string& when, const std::string& host, const Load& load) {
  constexpr double secondsADay = 86400;
  table.note(fmt::format("{}, {}: an agent", when, host),
             fmt::format("{:.0f} requests on {:.0f} connections, {}", load.requests, load.connections,
                         size(static_cast<std::uint64_t>(load.bytes))));
  table.note(fmt::format("{}, {}: ten million agents", when, host),
             fmt::format("{:.0f} requests a second, {}", load.requests * agents / secondsADay,
                         size(static_cast<std::uint64_t>(load.bytes * agents))));
}

/// A hurried agent whose connections to the hosts that every agent asks pass by relays.
class MeteredScene {
 public:
  explicit MeteredScene(const Plan& plan)
      : on_(plan, emptyList, [this, &plan](AgentScene& scene) {
          list_ = relayTo(scene.scene(), listHost);
          collector_ = relayTo(scene.scene(), logHost);
          scene.serveImage(rehearsal::Maker(scene.scene(), plan.prefix / "Orvik.app").pack({.version = "1.80.0"}));
        }) {
    on_.settled();
  }

  [[nodiscard]] AgentScene& on() { return on_.on(); }

  /// What one check costs that finds no connection open.
  Loads check(const std::string& lastRecord) {
    const Loads before = soFar();
    on_.check(1, lastRecord);
    on_.settled();
    const Loads after = soFar();
    return {.list = after.list - before.list, .collector = after.collector - before.collector};
  }
  Loads soFar() {
    const auto load = [](std::size_t requests, const Relay& relay) -> Load {
      return {static_cast<double>(requests), static_cast<double>(relay.connections()),
              static_cast<double>(relay.bytes())};
    };
    return {.list = load(on().listRequests(), *list_), .collector = load(on().records(), *collector_)};
  }

 private:
  std::unique_ptr<Relay> list_;
  std::unique_ptr<Relay> collector_;
  HurriedScene on_;
};

}  // namespace

void fleetRows(const Plan& plan, Table& table) {
  MeteredScene metered(plan);
  const Loads launch = metered.soFar();
  const Loads quiet = metered.check("Validation succeeded with no updates");
  metered.on().setList(installList("1.79"));
  const Loads install = metered.check("Cleaning up");
  addLoad(table, "a day without an action", "list", quiet.list * checksADay);
  addLoad(table, "a day without an action", "log collector", quiet.collector * checksADay);
  addLoad(table, "a day with an install", "list", quiet.list * (checksADay - 1) + install.list);
  addLoad(table, "a day with an install", "log collector", quiet.collector * (checksADay - 1) + install.collector);
  addLoad(table, "a launch with its check", "list", launch.list);
  addLoad(table, "a launch with its check", "log collector", launch.collector);
}

}  // namespace benchmarks
