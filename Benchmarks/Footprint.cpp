#include "Benchmarks/Footprint.h"

#include "Rehearsal/StandInMac.h"

#include <ctime>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include <fmt/format.h>
#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace benchmarks {
namespace {

/// The number behind "Name:" in a file of /proc.
double field(const std::string& text, const std::string& name) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1));
  }
  throw std::runtime_error("no " + name + " in /proc");
}

std::string procFile(pid_t process, const char* name) {
  return rehearsal::readFile(fmt::format("/proc/{}/{}", process, name));
}

}  // namespace

Footprint footprintOf(pid_t process) {
  constexpr double kibibyte = 1024;
  const std::string memory = procFile(process, "smaps_rollup");
  const std::string status = procFile(process, "status");
  Footprint footprint{.resident = field(memory, "Rss") * kibibyte,
                      .mostResident = field(status, "VmHWM") * kibibyte,
                      .proportional = field(memory, "Pss") * kibibyte,
                      .privateDirty = field(memory, "Private_Dirty") * kibibyte,
                      .threads = field(status, "Threads")};
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(fmt::format("/proc/{}/fd", process))) {
    ++footprint.descriptors;
  }
  return footprint;
}

double processorTimeOf(pid_t process) {
  clockid_t clock = 0;
  timespec time{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) {
    throw std::runtime_error("no processor time of the agent");
  }
  return static_cast<double>(time.tv_sec) + (static_cast<double>(time.tv_nsec) / 1e9);
}

ContextSwitches::ContextSwitches(pid_t process) {
  perf_event_attr event{};
  event.type = PERF_TYPE_SOFTWARE;
  event.size = sizeof event;
  event.config = PERF_COUNT_SW_CONTEXT_SWITCHES;
  event.inherit = 1;
  descriptor_ = static_cast<int>(syscall(SYS_perf_event_open, &event, process, -1, -1, 0));
}

ContextSwitches::~ContextSwitches() {
  if (descriptor_ >= 0) close(descriptor_);
}

std::optional<std::uint64_t> ContextSwitches::count() const {
  std::uint64_t count = 0;
  if (read(descriptor_, &count, sizeof count) != sizeof count) return std::nullopt;
  return count;
}

}  // namespace benchmarks
