#include "Campaign/Families.h"
#include "Campaign/Ground.h"

#include <algorithm>
#include <csignal>

#include <fmt/format.h>
#include <sys/stat.h>

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
  std::function<void(Ground&)> before;  // the agent starts
  std::string record;                   // at which the application does something,
  std::function<void(Ground&)> then;    // namely this
  std::string end = completes;          // the record that ends the check; empty when it is still under way then
  Application application = Application::updated;
  seconds limit = 60s;
};

void killOrvik(Ground& ground) {
  for (const pid_t process : ground.runningOrvik()) kill(process, SIGKILL);
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

/// An application that is deaf to polite requests.
void startStubbornOrvik(Ground& ground) {
  const fs::path program = ground.scene().orvik() / "Contents/MacOS/Orvik";
  fs::copy_file("/bin/sleep", program, fs::copy_options::overwrite_existing);
  ground.startOrvik("env --ignore-signal=TERM \"$0\" 600");
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
  const auto starts = [](Ground& ground) { ground.startOrvik(); };
  const auto nothing = [](Ground&) {};
  return {
      {.name = "quits when asked", .before = starts, .record = asks, .then = nothing},
      {.name = "ignores SIGTERM (for 5 s, then it is looked at)",
       .before = startStubbornOrvik,
       .record = asks,
       .then = nothing,
       .end = "",
       .application = Application::partial,
       .limit = 5s},
      {.name = "ignores SIGTERM, and is killed after 2 s",
       .before = startStubbornOrvik,
       .record = asks,
       .then =
           [](Ground& ground) {
             std::this_thread::sleep_for(2s);
             killOrvik(ground);
           }},
      {.name = "quits and is reopened at once",
       .before = starts,
       .record = asks,
       .then =
           [](Ground& ground) {
             while (!ground.runningOrvik().empty()) std::this_thread::yield();
             ground.startOrvik();
           }},
      {.name = "crashes while the image is fetched", .before = starts, .record = "Downloading", .then = killOrvik},
      {.name = "crashes when asked to quit", .before = starts, .record = asks, .then = killOrvik},
      {.name = "runs twice",
       .before =
           [](Ground& ground) {
             ground.startOrvik(R"("$0" & "$0" & wait)");
             while (ground.runningOrvik().size() < 2) std::this_thread::sleep_for(1ms);
           },
       .record = asks,
       .then = nothing},
      {.name = "updates itself to 1.79.9 while the image is fetched",
       .before = starts,
       .record = "Downloading",
       .then = [](Ground& ground) { replaceOrvik(ground, "1.79.9"); }},
      {.name = "updates itself to 1.81.0 while the image is unpacked",
       .before = starts,
       .record = "Unarchiving",
       .then = [](Ground& ground) { replaceOrvik(ground, "1.81.0"); }},
      {.name = "is removed while the image is unpacked",
       .before = nothing,
       .record = "Unarchiving",
       .then = [](Ground& ground) { fs::remove_all(ground.scene().orvik()); },
       .application = Application::gone},
      {.name = "is a link to a bundle in a folder of /Applications",
       .before =
           [](Ground& ground) { leadThereByLink(ground, ground.mac().sysroot() / "Applications/Tools/Orvik.app"); },
       .record = asks,
       .then = nothing},
      {.name = "is a link to a bundle elsewhere",
       .before = [](Ground& ground) { leadThereByLink(ground, ground.mac().home() / "Elsewhere/Orvik.app"); },
       .record = "",
       .then = nothing,
       .end = "Installer stopped, aborting install early because replacing app files is not possible",
       .application = Application::old},
  };
}

void play(const Row& row, Ground& ground, Report& report) {
  ground.reset();
  fs::remove_all(ground.mac().sysroot() / "Applications/Tools");
  row.before(ground);
  rehearsal::LogFollower log(ground.mac().systemLog());
  rehearsal::ChildProgram agent = ground.startAgent();
  if (!row.record.empty() && !log.waitFor(row.record, 30s)) {
    report.broken(fmt::format("{}: no record “{}”", row.name, row.record));
  }
  row.then(ground);
  const std::string end = ground.waitForEndOfCheck(agent, row.limit);
  const auto records = ground.records();
  const std::size_t running = ground.runningOrvik().size();
  agent.send(SIGTERM);
  const auto status = agent.wait(10s);
  const Application application = ground.application();
  if (end != row.end) report.broken(fmt::format("{}: the check ended with “{}”", row.name, end));
  if (application != row.application) report.broken(fmt::format("{}: it is {} now", row.name, name(application)));
  if (status != 0) report.broken(row.name + ": the agent did not quit in order");
  std::string last = end.empty() ? "(still waiting)" : end;
  for (const std::string& record : records) {
    if (record == "Installation completed" || record.starts_with("Installer stopped") ||
        record == "Skipping app launch")
      last = record;
  }
  report.row({row.name, last, name(application), std::to_string(running), ground.leftovers().text()});
  ground.endOrvik();
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
