#include "Rehearsal/DryRunRehearsal.h"

#include <exception>
#include <filesystem>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace {

/// The wrong use of a tool, as everywhere.
constexpr int usageStatus = 2;

}  // namespace

int main(int argc, char** argv) {
  CLI::App options{"Runs the emergency update agent's main job on a stand-in Mac, end to end."};
  rehearsal::Stage stage{.prefix = std::filesystem::canonical("/proc/self/exe").parent_path().parent_path()};
  bool dryRun = true;
  options.add_flag("--dry-run", dryRun, "Rehearse a dry run; there is nothing else to rehearse yet");
  options.add_flag("--keep", stage.keepsMac, "Leave the stand-in Mac behind, log included");
  try {
    options.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return options.exit(error) == 0 ? 0 : usageStatus;
  }
  try {
    rehearsal::Transcript transcript;
    return rehearsal::rehearseDryRun(stage, transcript) ? 0 : 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "rehearse: {}\n", error.what());
    return 1;
  }
}
