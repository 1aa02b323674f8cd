#include "Benchmarks/AgentScene.h"
#include "Benchmarks/Footprint.h"
#include "Benchmarks/Rows.h"
#include "Rehearsal/Maker.h"

#include <thread>

#include <fmt/format.h>

namespace benchmarks {
namespace {

void addFootprint(Table& table, const std::string& when, const Footprint& footprint) {
  table.limit(when + ": resident memory", footprint.resident, 20e6, size);
  table.limit(when + ": private dirty memory", footprint.privateDirty, 4e6, size);
  table.note(when + ": proportional memory", size(footprint.proportional));
  table.limit(when + ": threads", footprint.threads, 4);
  table.note(when + ": open descriptors", fmt::to_string(footprint.descriptors));
}

/// What has grown from one moment to a later one; memory to within what the allocator rounds up.
void addGrowth(Table& table, const std::string& when, const Footprint& before, const Footprint& after) {
  constexpr double tolerated = 200e3;
  table.limit(when + ": more private dirty memory", after.privateDirty - before.privateDirty, tolerated, size);
  table.limit(when + ": more threads", after.threads - before.threads, 0);
  table.limit(when + ": more open descriptors", after.descriptors - before.descriptors, 0);
}

/// A tenth of so many checks by a hurried agent, then the rest. What the allocator holds for a while is no growth, so
/// that is looked at once more after another tenth.
void addLongRun(Table& table, AgentScene& on, int times, std::span<const char* const> records,
                const std::string& what) {
  const auto checked = [&](int count) {
    on.check(count, records);
    on.settle();
    return footprintOf(on.scene().agentProcessIdentifier());
  };
  const int few = std::max(times / 10, 1);
  const Footprint before = checked(few);
  const Footprint after = checked(times - few);
  addFootprint(table, fmt::format("after {} {}", times, what), after);
  const Footprint later = checked(few);
  addGrowth(table, fmt::format("from {} {} to {}", few, what, times), before,
            later.privateDirty < after.privateDirty ? later : after);
}

}  // namespace

void idleRows(const Plan& plan, Table& table) {
  AgentScene on(plan, emptyList);
  on.scene().startAgent();
  on.scene().reach({"Validation succeeded with no updates"});
  on.settle();
  const pid_t agent = on.scene().agentProcessIdentifier();
  const ContextSwitches switches(agent);
  const double processorBefore = processorTimeOf(agent);
  std::this_thread::sleep_for(plan.idle);
  const double minutes = std::chrono::duration<double, std::ratio<60>>(plan.idle).count();
  addFootprint(table, "idle", footprintOf(agent));
  table.limit("idle: processor time a minute", (processorTimeOf(agent) - processorBefore) / minutes, 0.010, duration);
  if (const auto count = switches.count()) {
    table.limit("idle: context switches a minute", static_cast<double>(*count) / minutes, 4);
  } else {
    table.note("idle: context switches a minute", "not measured: needs the right to use perf_event_open");
  }
  on.scene().quitAgent();
}

void checksRows(const Plan& plan, Table& table) {
  AgentScene on(plan, emptyList);
  on.hurry();
  addLongRun(table, on, plan.isShrunk ? 10 : 1000, quietCheck, "checks");
}

void installsRows(const Plan& plan, Table& table) {
  AgentScene on(plan, emptyList);
  on.serveImage(rehearsal::Maker(on.scene(), plan.prefix / "Orvik.app").pack({}));
  on.hurry();
  on.setList(installList("1"));
  addLongRun(table, on, plan.isShrunk ? 2 : 100, completeInstall, "installs");
}

}  // namespace benchmarks
