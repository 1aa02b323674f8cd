#include "Rehearsal/Rehearsals.h"

#include <exception>
#include <filesystem>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace {

/// The wrong use of a tool, as everywhere.
constexpr int usageStatus = 2;

}  // namespace

int main(int argc, char** argv) {
  rehearsal::Stage stage{.prefix = std::filesystem::canonical("/proc/self/exe").parent_path().parent_path()};
  rehearsal::Setting setting;
  rehearsal::OwnFiles files;
  bool dryRun = false;
  bool watchdog = false;
  bool removal = false;
  CLI::App options{
      "Runs the emergency update agent's main job on a stand-in Mac, end to end: an emergency update, unless\n"
      "the options say otherwise. Exit status 0 when all went as it should, 1 when not, 2 for wrong usage.",
      "rehearse"};
  auto* dry = options.add_flag("--dry-run", dryRun, "A list that only asks for a dry run");
  auto* updates = options.add_flag("--watchdog", watchdog,
                                   "Self-updates of the application, one that comes back and one that does not: two "
                                   "minutes of real time");
  auto* gone = options.add_flag("--removal", removal,
                                "The application is gone and the agent removes itself: a minute of real time");
  auto* list =
      options.add_option("--list", files.list, "An emergency update list of your own")->check(CLI::ExistingFile);
  options.add_option("--image", files.image, "The disk image behind the list's install URLs")
      ->check(CLI::ExistingFile)
      ->needs(list);
  options.add_option("--anchors", files.anchors, "PEM certificates to take for the platform vendor's root")
      ->check(CLI::ExistingFile)
      ->needs(list);
  options.add_option("--installed", setting.installedVersion, "The installed application's version")->needs(list);
  options.add_option("--os", setting.systemVersion, "The system version, one to three numbers")->needs(list);
  options.add_option("--machine", setting.machineName, "The machine's name: arm64, x86_64")->needs(list);
  options.add_flag("--keep", stage.keepsMac, "Leave the stand-in Mac behind, log included");
  for (auto* other : {list, updates, gone}) other->excludes(dry);
  for (auto* other : {list, gone}) other->excludes(updates);
  list->excludes(gone);
  try {
    options.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return options.exit(error) == 0 ? 0 : usageStatus;
  }
  rehearsal::Transcript transcript;
  try {
    if (!files.list.empty()) {
      rehearsal::rehearseOwnFiles(stage, setting, files, transcript);
    } else if (watchdog) {
      rehearsal::rehearseUpdateWatchdog(stage, transcript);
    } else if (removal) {
      rehearsal::rehearseSelfRemoval(stage, transcript);
    } else if (dryRun) {
      rehearsal::rehearseDryRun(stage, transcript);
    } else {
      rehearsal::rehearseInstall(stage, transcript);
    }
    return 0;
  } catch (const std::exception& error) {
    transcript.heading(fmt::format("Failed: {}", error.what()));
    return 1;
  }
}
