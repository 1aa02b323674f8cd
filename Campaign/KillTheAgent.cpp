#include "Campaign/Families.h"
#include "Campaign/Ground.h"
#include "Campaign/SupervisedProgram.h"

#include <algorithm>
#include <atomic>
#include <csignal>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/syscall.h>

namespace campaign {
namespace {

using namespace std::chrono_literals;
using rehearsal::ChildProgram;
using rehearsal::SystemCall;

enum class Victim { agent, agentAndChildren };

/// Whom to kill, and at how many of whose moments.
struct Plan {
  const char* name;
  Victim victim;
  std::size_t kills;
  std::string_view phase;  // the record after which to count; empty for the whole install
};

/// Counts the system calls of an install, from its first record to the end of its thread, and kills at one of them.
class Executioner {
 public:
  Executioner(const Ground& ground, const Plan& plan, std::size_t moment)
      : plan_(plan),
        moment_(moment),
        supervised_(ground.agent(), [this](auto& program, const auto& call, bool isAgents) {
          if (isAgents) noteRecord(call);
          if (!isMoment(call, isAgents)) return 0;
          hasKilled_ = true;
          if (plan_.victim == Victim::agent) {
            program.killProgram();
          } else {
            program.killAll();
          }
          return 0;
        }) {}

  [[nodiscard]] ChildProgram& agent() { return supervised_.program(); }
  [[nodiscard]] std::size_t calls() const { return calls_; }
  /// False when the install has ended before its moment.
  [[nodiscard]] bool hasKilled() const { return hasKilled_; }
  /// The last record of the install before the end.
  [[nodiscard]] const std::string& phase() const { return phase_; }

 private:
  bool isMoment(const SystemCall& call, bool isAgents) {
    if (phase_.empty() || hasEnded_) return false;
    hasEnded_ = call.thread == installer_ && call.number == SYS_exit;
    if (!plan_.phase.empty() && plan_.phase != phase_) return false;
    return (isAgents || plan_.victim == Victim::agentAndChildren) && ++calls_ == moment_;
  }

  void noteRecord(const SystemCall& call) {
    const auto record = recordWritten(call);
    if (!record) return;
    if (record->message == beginsInstall) installer_ = call.thread;
    if (installer_ == call.thread) phase_ = record->message;
  }

  const Plan plan_;
  const std::size_t moment_;
  std::size_t calls_ = 0;
  pid_t installer_ = 0;
  std::string phase_;
  bool hasEnded_ = false;
  std::atomic<bool> hasKilled_ = false;
  SupervisedProgram supervised_;
};

/// What became of all kills in one phase of the install.
struct Tally {
  int kills = 0;
  std::map<Application, int> applications;
  int notRunning = 0;
  int completed = 0;  // installs of the next check
  int impossible = 0;
  Leftovers most;  // when all is over

  [[nodiscard]] std::string applicationsText() const {
    std::vector<std::string> texts;
    texts.reserve(applications.size());
    for (const auto& [application, count] : applications)
      texts.push_back(fmt::format("{} {}", count, name(application)));
    return fmt::format("{}", fmt::join(texts, ", "));
  }
};

class KillCampaign {
 public:
  explicit KillCampaign(Campaign& campaign) : campaign_(campaign), ground_(campaign.prefix) {}

  void run(const Plan& plan) {
    const std::size_t calls = callsOfUndisturbedInstall(plan);
    tallies_.clear();
    order_.clear();
    std::size_t missed = 0;
    for (std::size_t i = 0; i < plan.kills; ++i) {
      if (!killAt(plan, 1 + (calls * (2 * i + 1)) / (2 * plan.kills))) ++missed;
    }
    // An install takes some more calls at one time than at another.
    if (missed > plan.kills / 10) {
      campaign_.report.broken(fmt::format("{}: {} of {} moments did not come", plan.name, missed, plan.kills));
    }
    for (const std::string& phase : order_) {
      const Tally& tally = tallies_[phase];
      campaign_.report.row({plan.name, phase, std::to_string(tally.kills), tally.applicationsText(),
                            std::to_string(tally.notRunning), std::to_string(tally.completed),
                            std::to_string(tally.impossible), tally.most.text()});
    }
    summary_ += fmt::format("{}: {} moments over some {} system calls, of which {} did not come. ", plan.name,
                            plan.kills, calls, missed);
  }
  [[nodiscard]] const std::string& summary() const { return summary_; }

 private:
  std::size_t callsOfUndisturbedInstall(const Plan& plan) {
    prepare();
    Executioner none(ground_, plan, 0);
    if (ground_.waitForEndOfCheck(none.agent(), installLimit) != "Cleaning up") {
      throw rehearsal::Failure("an undisturbed install does not complete");
    }
    ofOneInstall_ = ground_.leftovers();
    return none.calls();
  }

  void prepare() {
    ground_.reset();
    ground_.startOrvik();
  }

  /// False when this install takes fewer calls than the one counted, and has ended by itself.
  bool killAt(const Plan& plan, std::size_t moment) {
    prepare();
    Executioner executioner(ground_, plan, moment);
    ground_.waitForEndOfCheck(executioner.agent(), installLimit);
    if (!executioner.hasKilled()) return false;
    const auto status = executioner.agent().wait(installLimit);
    if (status != 128 + SIGKILL) campaign_.report.broken(executioner.phase() + ": the agent survived, or ended before");
    judgeKilled(executioner.phase());
    return true;
  }

  void judgeKilled(const std::string& phase) {
    if (!tallies_.contains(phase)) order_.push_back(phase);
    Tally& tally = tallies_[phase];
    const Application killed = ground_.application();
    const bool hasVersion = ground_.applicationVersion().has_value();
    const Leftovers before = ground_.leftovers();
    ++tally.kills;
    ++tally.applications[killed];
    if (ground_.runningOrvik().empty()) ++tally.notRunning;

    ChildProgram next = ground_.startAgent();
    const std::string end = ground_.waitForEndOfCheck(next, installLimit);
    const Application after = ground_.application();
    next.send(SIGTERM);
    if (next.wait(installLimit) != 0) campaign_.report.broken(phase + ": the next agent did not quit in order");
    const Leftovers left = ground_.leftovers();
    tally.most.sessionFiles = std::max(tally.most.sessionFiles, left.sessionFiles);
    tally.most.folders = std::max(tally.most.folders, left.folders);
    tally.most.unpackedApplications = std::max(tally.most.unpackedApplications, left.unpackedApplications);
    tally.most.mounts = std::max(tally.most.mounts, left.mounts);
    const bool completed = end == "Cleaning up" && after == Application::updated;
    ++(completed ? tally.completed : tally.impossible);
    judge(phase, killed, hasVersion, completed, after);
    if (completed && left.folders > before.folders + ofOneInstall_.folders) {
      campaign_.report.broken(fmt::format("{}: the next install left more than one does: {}", phase, left.text()));
    }
  }

  /// What holds without a roll-back: before the replacement the old application stands, after it the new one, and the
  /// next check completes whenever the version of what stands can be told: the list matches the old and the new one.
  void judge(const std::string& phase, Application killed, bool hasVersion, bool completed, Application after) {
    const bool isReplacing = phase == replaces;
    const bool isAfter = phase == "Final verification initiallyInstalledBundleVersion" ||
                         phase.starts_with("Launching app") || phase == "Installation completed" ||
                         phase == "Cleaning up";
    const Application expected = isAfter ? Application::updated : Application::old;
    const bool mayFail = isReplacing && !hasVersion;
    if ((!isReplacing && killed != expected) || (!completed && (!mayFail || after != killed))) {
      campaign_.report.broken(
          fmt::format("{}: {} after the kill, {} after the next check", phase, name(killed), name(after)));
    }
  }

  Campaign& campaign_;
  Ground ground_;
  Leftovers ofOneInstall_;
  std::map<std::string, Tally> tallies_;
  std::vector<std::string> order_;
  std::string summary_;
};

}  // namespace

void killTheAgent(Campaign& campaign) {
  campaign.report.heading("The agent killed",
                          "SIGKILL at moments spread evenly over an install that finds Orvik running, by the number of "
                          "system calls since its\n"
                          "first record: those of the agent alone, or of the agent and everything it started, "
                          "whichever is killed. Then the\n"
                          "agent is started again, and its next check is to complete an install.");
  campaign.report.row({"killed", "last record before", "kills", "application then", "not running then",
                       "next install completed", "not possible", "at most left in the end"});
  const bool isFull = campaign.extent == Extent::full;
  KillCampaign family(campaign);
  for (const Plan& plan :
       {Plan{"agent", Victim::agent, 100U, ""}, Plan{"agent and children", Victim::agentAndChildren, 100U, ""},
        Plan{"agent while it replaces", Victim::agent, 60U, replaces}}) {
    family.run({plan.name, plan.victim, isFull ? plan.kills : 2, plan.phase});
  }
  campaign.report.note(family.summary());
}

}  // namespace campaign
