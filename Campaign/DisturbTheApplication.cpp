#include "Campaign/Families.h"
#include "Campaign/Ground.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

#include <fmt/format.h>

namespace campaign {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::seconds;

constexpr const char* asks = "Terminating app process(es)";
constexpr const char* completes = "Cleaning up";

/// One way of the main application's, and what is to come of it.
struct Row {
  std::string name;
  std::function<void(Ground&)> before;        // the agent starts
  std::function<void(Ground&)> whileFetched;  // the image, which waits for it
  std::function<void(Ground&)> whenAsked;     // to quit
  std::string end = completes;                // the record that ends the check; empty when it is still under way then
  Application application = Application::updated;
  std::size_t running = 1;  // processes of it in the end
  seconds limit = 60s;
};

void starts(Ground& ground) {
  ground.startOrvik();
}

/// Ends the application, puts one of another version into its place and starts that, as an updater does.
void replaceOrvik(Ground& ground, const std::string& version) {
  ground.endOrvik();
  const fs::path staged = ground.mac().folder() / "staged";
  fs::remove_all(staged);
  rehearsal::StandInMac::installApplication(ground.scene().orvik(), staged, version);
  rehearsal::handOver(staged);
  fs::rename(ground.scene().orvik(), staged / "Orvik.old");
  fs::rename(staged / "Orvik.app", ground.scene().orvik());
  ground.startOrvik();
}

/// A program of the system's in its place.
void startInstead(Ground& ground, const fs::path& program, const std::string& script) {
  const fs::path place = ground.scene().orvik() / "Contents/MacOS/Orvik";
  fs::copy_file(program, place, fs::copy_options::overwrite_existing);
  ground.startOrvik(script);
}

/// An application that is deaf to polite requests.
void startStubbornOrvik(Ground& ground) {
  startInstead(ground, "/bin/sleep", R"(env --ignore-signal=TERM "$0" 600)");
}

/// The file by which it is started again, even when it is removed from its place meanwhile.
constexpr const char* heldFile = "/proc/self/fd/3";

void startAndReopenOrvik(Ground& ground) {
  ground.startOrvik(fmt::format(R"(exec 3<"$0"; "$0"; {} & wait)", heldFile));
}

void awaitReopenedOrvik(Ground& ground) {
  const auto isReopened = [](pid_t process) {
    std::string words;
    std::getline(std::ifstream(fmt::format("/proc/{}/cmdline", process)), words);
    return words.starts_with(heldFile);
  };
  for (const auto deadline = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < deadline;) {
    if (std::ranges::any_of(ground.runningOrvik(), isReopened)) return;
    std::this_thread::sleep_for(1ms);
  }
  throw rehearsal::Failure("Orvik is not reopened");
}

void leadThereByLink(Ground& ground, const fs::path& place) {
  fs::create_directories(place.parent_path());
  fs::remove_all(place);
  fs::rename(ground.scene().orvik(), place);
  rehearsal::handOver(place.parent_path());
  fs::create_directory_symlink(place, ground.scene().orvik());
  rehearsal::handOver(ground.scene().orvik());
}

std::vector<Row> rows() {
  return {
      {.name = "quits when asked", .before = starts},
      {.name = "ignores SIGTERM (for 5 s, then it is looked at)",
       .before = startStubbornOrvik,
       .end = "",
       .application = Application::partial,
       .limit = 5s},
      {.name = "ignores SIGTERM, and is killed after 2 s",
       .before = startStubbornOrvik,
       .whenAsked =
           [](Ground& ground) {
             std::this_thread::sleep_for(2s);
             ground.endOrvik();
           }},
      {.name = "quits and is reopened at once", .before = startAndReopenOrvik, .whenAsked = awaitReopenedOrvik},
      {.name = "crashes while the image is fetched",
       .before = starts,
       .whileFetched = [](Ground& ground) { ground.endOrvik(); },
       .running = 0},
      {.name = "dies of being asked to quit",
       .before = [](Ground& ground) { startInstead(ground, "/bin/sleep", R"("$0" 600 & wait)"); }},
      {.name = "runs twice", .before = [](Ground& ground) { ground.startOrvik(R"("$0" & "$0" & wait)", 2); }},
      {.name = "updates itself to 1.79.9 while the image is fetched",
       .before = starts,
       .whileFetched = [](Ground& ground) { replaceOrvik(ground, "1.79.9"); }},
      {.name = "updates itself to 1.81.0 while the image is fetched",
       .before = starts,
       .whileFetched = [](Ground& ground) { replaceOrvik(ground, "1.81.0"); }},
      {.name = "is removed while the image is fetched",
       .whileFetched = [](Ground& ground) { fs::remove_all(ground.scene().orvik()); },
       .application = Application::gone,
       .running = 0},
      {.name = "is a link to a bundle in a folder of /Applications",
       .before =
           [](Ground& ground) { leadThereByLink(ground, ground.mac().sysroot() / "Applications/Tools/Orvik.app"); },
       .running = 0},
      {.name = "is a link to a bundle elsewhere",
       .before = [](Ground& ground) { leadThereByLink(ground, ground.mac().home() / "Elsewhere/Orvik.app"); },
       .end = "Installer stopped, aborting install early because replacing app files is not possible",
       .application = Application::old,
       .running = 0},
  };
}

void play(const Row& row, Ground& ground, Report& report) {
  ground.reset();
  fs::remove_all(ground.mac().sysroot() / "Applications/Tools");
  if (row.before) row.before(ground);
  std::atomic<bool> hasHappened = !row.whileFetched;
  if (row.whileFetched) {
    ground.beforeImage([&] {
      row.whileFetched(ground);
      hasHappened = true;
    });
  }
  rehearsal::LogFollower log(ground.mac().systemLog());
  rehearsal::ChildProgram agent = ground.startAgent();
  if (row.whenAsked) {
    if (!log.waitFor(asks, 30s)) throw rehearsal::Failure(row.name + ": it is not asked to quit");
    row.whenAsked(ground);
  }
  const std::string end = ground.waitForEndOfCheck(agent, row.limit);
  const auto records = ground.records();
  const std::size_t running = ground.runningOrvik().size();
  agent.send(SIGTERM);
  const auto status = agent.wait(10s);
  const Application application = ground.application();
  if (!hasHappened) report.broken(row.name + ": that did not happen");
  if (end != row.end) report.broken(fmt::format("{}: the check ended with “{}”", row.name, end));
  if (application != row.application) report.broken(fmt::format("{}: it is {} now", row.name, name(application)));
  if (running != row.running) report.broken(fmt::format("{}: {} run", row.name, running));
  if (status != 0) report.broken(row.name + ": the agent did not quit in order");
  std::string last = end.empty() ? "(still waiting)" : end;
  for (const std::string& record : records) {
    if (record == "Installation completed" || record.starts_with("Installer stopped") ||
        record == "Skipping app launch")
      last = record;
  }
  report.row({row.name, last, name(application), std::to_string(running), ground.leftovers().text()});
}

}  // namespace

void disturbTheApplication(Campaign& campaign) {
  campaign.report.heading(
      "A main application with a mind of its own",
      "What Orvik does during an install, how that ends, which application is there then (old is 1.79.3, new 1.80.0,\n"
      "partial any other content) and how many processes of it run.");
  campaign.report.row({"Orvik", "end", "application", "running", "left behind"});
  Ground ground(campaign.prefix);
  for (const Row& row : rows()) play(row, ground, campaign.report);
}

}  // namespace campaign
