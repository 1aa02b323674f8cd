#include "Benchmarks/Footprint.h"

#include "Rehearsal/StandInMac.h"

#include <ctime>
#include <filesystem>
#include <sstream>

#include <fmt/format.h>
#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace benchmarks {
namespace {

/// The number behind "Name:" in a file of /proc; 0 without one.
std::uint64_t field(const std::string& text, const std::string& name) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + ":")) return std::stoull(line.substr(name.size() + 1));
  }
  return 0;
}

std::string procFile(pid_t process, const char* name) {
  return rehearsal::readFile(fmt::format("/proc/{}/{}", process, name));
}

constexpr std::uint64_t kibibyte = 1024;

}  // namespace

Footprint footprintOf(pid_t process) {
  const std::string memory = procFile(process, "smaps_rollup");
  Footprint footprint{.resident = field(memory, "Rss") * kibibyte,
                      .proportional = field(memory, "Pss") * kibibyte,
                      .privateDirty = field(memory, "Private_Dirty") * kibibyte,
                      .threads = field(procFile(process, "status"), "Threads")};
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(fmt::format("/proc/{}/fd", process))) {
    ++footprint.descriptors;
  }
  return footprint;
}

std::uint64_t peakOf(pid_t process) {
  return field(procFile(process, "status"), "VmHWM") * kibibyte;
}

double processorTimeOf(pid_t process) {
  clockid_t clock = 0;
  timespec time{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) return 0;
  return static_cast<double>(time.tv_sec) + (static_cast<double>(time.tv_nsec) / 1e9);
}

ContextSwitches::ContextSwitches(pid_t process) : descriptor_(-1) {
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
