#include "Benchmarks/AgentScene.h"
#include "Benchmarks/Footprint.h"
#include "Benchmarks/HurriedScene.h"
#include "Benchmarks/Rows.h"
#include "Rehearsal/Maker.h"

#include <thread>

#include <fmt/format.h>

namespace benchmarks {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t megabyte = 1'000'000;

void addFootprint(Table& table, const std::string& when, const Footprint& footprint) {
  const auto memory = [&](const char* name, std::uint64_t bytes, std::uint64_t megabytes) {
    table.limit(fmt::format("{}: {}", when, name), size(bytes), static_cast<double>(bytes),
                fmt::format("{} MB", megabytes), static_cast<double>(megabytes * megabyte));
  };
  memory("resident memory", footprint.resident, 20);
  memory("private dirty memory", footprint.privateDirty, 4);
  table.note(when + ": proportional memory", size(footprint.proportional));
  table.limit(when + ": threads", std::to_string(footprint.threads), static_cast<double>(footprint.threads), "4", 4);
  table.note(when + ": open descriptors", std::to_string(footprint.descriptors));
}

/// What has grown from one moment to a later one; memory to within what the allocator rounds up.
void addGrowth(Table& table, const std::string& when, const Footprint& before, const Footprint& after) {
  constexpr double tolerated = 256 * 1024;
  const auto grown = static_cast<std::int64_t>(after.privateDirty) - static_cast<std::int64_t>(before.privateDirty);
  table.limit(when + ": private dirty memory", fmt::format("{:+} kB", grown / 1000), static_cast<double>(grown),
              "262 kB", tolerated);
  const auto more = [&](const char* name, std::uint64_t first, std::uint64_t second) {
    table.limit(when + ": " + name, fmt::format("{} → {}", first, second), static_cast<double>(second),
                std::to_string(first), static_cast<double>(first));
  };
  more("threads", before.threads, after.threads);
  more("open descriptors", before.descriptors, after.descriptors);
}

}  // namespace

void idleRows(const Plan& plan, Table& table) {
  AgentScene on(plan, emptyList);
  on.scene().startAgent();
  on.scene().reach({"Validation succeeded with no updates"});
  std::this_thread::sleep_for(settlingTime);
  const pid_t agent = on.scene().agentProcessIdentifier();
  const ContextSwitches switches(agent);
  const double processorBefore = processorTimeOf(agent);
  const auto idle = plan.isShrunk ? std::chrono::seconds(1) : plan.idle;
  std::this_thread::sleep_for(idle);
  const double minutes = static_cast<double>(idle.count()) / 60;
  const double processor = (processorTimeOf(agent) - processorBefore) / minutes;
  const auto count = switches.count();
  addFootprint(table, "idle", footprintOf(agent));
  table.limit("idle: processor time a minute", duration(processor), processor, "10 ms", 0.010);
  const double wakeUps = static_cast<double>(count.value_or(0)) / minutes;
  if (count) table.limit("idle: context switches a minute", fmt::format("{:.1f}", wakeUps), wakeUps, "4", 4);
  if (!count) table.note("idle: context switches a minute", "not measured: needs the right to use perf_event_open");
  on.scene().quitAgent();
}

void checksRows(const Plan& plan, Table& table) {
  HurriedScene on(plan, emptyList);
  const int checks = plan.isShrunk ? 10 : 1000;
  on.check(checks / 10, "Validation succeeded with no updates");
  const Footprint before = on.settled();
  on.check(checks - (checks / 10), "Validation succeeded with no updates");
  const Footprint after = on.settled();
  addFootprint(table, fmt::format("after {} checks", checks), after);
  addGrowth(table, fmt::format("from {} checks to {}", checks / 10, checks), before, after);
}

void installsRows(const Plan& plan, Table& table) {
  HurriedScene on(plan, emptyList, [&](AgentScene& scene) {
    scene.serveImage(rehearsal::Maker(scene.scene(), plan.prefix / "Orvik.app").pack({.version = "1.80.0"}));
  });
  on.on().setList(installList("1"));
  const int installs = plan.isShrunk ? 2 : 100;
  const int first = std::max(installs / 10, 1);
  on.check(first, "Cleaning up");
  const Footprint before = on.settled();
  on.check(installs - first, "Cleaning up");
  const Footprint after = on.settled();
  addFootprint(table, fmt::format("after {} installs", installs), after);
  addGrowth(table, fmt::format("from {} installs to {}", first, installs), before, after);
}

}  // namespace benchmarks
