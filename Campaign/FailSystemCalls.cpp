#include "Campaign/Families.h"
#include "Campaign/Ground.h"
#include "Campaign/SupervisedProgram.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <regex>
#include <set>

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace campaign {
namespace {

using namespace std::chrono_literals;
using rehearsal::SystemCall;

constexpr std::array errors{ENOSPC, EIO, EACCES, EROFS, EMFILE};

/// Fails one call of an install, of the agent's own processes alone, or only counts them.
class Sabotage {
 public:
  explicit Sabotage(std::string logName) : logName_(std::move(logName)) {}

  /// A kind of call, "stage: call path"; whether it changes anything.
  struct Kind {
    std::string name;
    bool changes;
  };
  /// Those worth failing, in order.
  std::vector<Kind> kinds;
  /// Which of these to fail the first time it comes, and with what; the stage it was in, empty when it did not come.
  std::string chosen;
  int error = 0;
  std::string stage;

  int judge(const SystemCall& call, bool isAgents) {
    if (!isAgents) return 0;
    const std::string name = rehearsal::fileSystemCallName(call.number);
    if (std::ranges::find(rehearsal::fileSystemCalls(), call.number) == rehearsal::fileSystemCalls().end()) return 0;
    const std::string subject = subjectOf(call, name);
    if (subject.ends_with(logName_)) {
      noteRecord(call);
      return 0;
    }
    // Pipes, sockets and what the C library looks up for itself are no files of the install.
    if (stage_.empty() || !subject.starts_with('/') || subject.starts_with("/etc/") || subject.starts_with("/usr/") ||
        subject.starts_with("/dev/") || subject.starts_with("/lib")) {
      return 0;
    }
    static const std::regex varying(
        R"([0-9A-F]{8}-[0-9A-F-]{27}|CFNetworkDownload_\w+|/proc/\d+|stand-in-mac\.\w+|\.replacement-\w+)");
    const bool isToChange = changes(call, name);
    const std::string kind =
        fmt::format("{}: {}{} {}", stage_, name, isToChange && name.starts_with("open") ? " to write" : "",
                    std::regex_replace(subject, varying, "*"));
    if (!known_.insert(kind).second) return 0;
    kinds.push_back({kind, isToChange});
    if (kind != chosen) return 0;
    stage = stage_;
    return error;
  }

 private:
  static bool changes(const SystemCall& call, const std::string& name) {
    if (name == "openat" || name == "open")
      return (call.arguments.at(name == "open" ? 1 : 2) & (O_ACCMODE | O_CREAT)) != 0;
    static const std::regex reading("read.*|pread|.*stat.*|.*access.*|getdents64|.*(list|get)xattr");
    return !std::regex_match(name, reading);
  }

  static std::string subjectOf(const SystemCall& call, const std::string& name) {
    const bool takesFolder = name.ends_with("at") || name == "statx" || name == "faccessat2" || name == "renameat2";
    const bool takesPath = name == "open" || name == "stat" || name == "lstat" || name == "access" || name == "mkdir" ||
                           name == "rmdir" || name == "unlink" || name == "rename" || name == "readlink" ||
                           name == "chmod";
    if (takesPath) return call.textAt(0);
    if (!takesFolder || name == "fstatat") {
      const std::string path = takesFolder ? call.textAt(1) : "";
      if (path.empty()) return call.describe(call.arguments[0]);
    }
    if (name == "symlinkat") return call.textAt(2).starts_with('/') ? call.textAt(2) : call.describe(call.arguments[1]);
    const std::string path = call.textAt(1);
    return path.starts_with('/') ? path : call.describe(call.arguments[0]) + "/" + path;
  }

  void noteRecord(const SystemCall& call) {
    const auto record = recordWritten(call);
    if (!record) return;
    if (record->message == beginsInstall) installer_ = call.thread;
    if (installer_ == call.thread && record->category == "EmergencyUpdateInstaller") stage_ = record->message;
  }

  std::string logName_;
  std::string stage_;
  pid_t installer_ = 0;
  std::set<std::string> known_;
};

/// What became of the failed calls of one stage.
struct Tally {
  int failed = 0;
  int completed = 0;
  int unasked = 0;                   // completed, and the application that ran before still does
  int told = 0;                      // stopped with the very error in a record
  std::map<std::string, int> other;  // stopped with another record
};

class FailureCampaign {
 public:
  explicit FailureCampaign(Campaign& campaign) : campaign_(campaign), ground_(campaign.prefix) {}

  void run(std::size_t step) {
    Sabotage none("system.ndjson");
    install(none);
    std::size_t tried = 0;
    std::set<std::string> missed;
    for (std::size_t i = 0; i < none.kinds.size(); i += step) {
      for (std::size_t k = 0; k < errors.size(); ++k) {
        // Those that change nothing fail with one error each, and so do all in a sample.
        const bool takesAll = step == 1 && none.kinds[i].changes;
        if (!takesAll && k != (i / step) % errors.size()) continue;
        Sabotage sabotage("system.ndjson");
        sabotage.chosen = none.kinds[i].name;
        sabotage.error = errors.at(k);
        const std::string end = install(sabotage);
        ++tried;
        if (sabotage.stage.empty()) {
          missed.insert(sabotage.chosen);
        } else {
          judge(sabotage, end);
        }
      }
    }
    for (const std::string& stage : order_) {
      const Tally& tally = tallies_[stage];
      std::string others;
      for (const auto& [record, count] : tally.other) {
        others += fmt::format("{}{} × “{}”", others.empty() ? "" : "; ", count, record);
      }
      campaign_.report.row({stage, std::to_string(tally.failed), std::to_string(tally.completed),
                            std::to_string(tally.unasked), std::to_string(tally.told), others.empty() ? "-" : others});
    }
    campaign_.report.note(
        fmt::format("{} kinds of calls, {} of them to change something; {} failures, {} kinds that did "
                    "not come again{}{}",
                    none.kinds.size(), std::ranges::count(none.kinds, true, &Sabotage::Kind::changes), tried,
                    missed.size(), missed.empty() ? "." : ": ", fmt::join(missed, "; ")));
    if (missed.size() > std::max<std::size_t>(1, tried / 50))
      campaign_.report.broken("too many calls that were not failed");
  }

 private:
  std::string install(Sabotage& sabotage) {
    ground_.reset();
    ground_.startOrvik();
    const pid_t orvik = ground_.runningOrvik().at(0);
    std::string end;
    {
      SupervisedProgram agent(ground_.agent(), [&](auto& /*program*/, const auto& call, bool isAgents) {
        return sabotage.judge(call, isAgents);
      });
      end = ground_.waitForEndOfCheck(agent.program(), installLimit);
      if (!agent.program().isRunning()) end = fmt::format("ended with {}", *agent.program().wait(0s));
      records_ = ground_.records();
      application_ = ground_.application();
      const auto running = ground_.runningOrvik();
      stillRuns_ = std::ranges::find(running, orvik) != running.end();
      left_ = ground_.leftovers();
    }
    return end;
  }

  void judge(const Sabotage& sabotage, const std::string& end) {
    if (!tallies_.contains(sabotage.stage)) order_.push_back(sabotage.stage);
    Tally& tally = tallies_[sabotage.stage];
    ++tally.failed;
    const std::string what = fmt::format("{} with {}", sabotage.chosen, strerrorname_np(sabotage.error));
    const bool hasCompleted = std::ranges::find(records_, "Installation completed") != records_.end();
    const auto stops =
        std::ranges::count_if(records_, [](const auto& text) { return text.starts_with("Installer stopped"); });
    if (!endsCheck(end)) campaign_.report.broken(fmt::format("{}: the check ended with “{}”", what, end));
    if (stops != (hasCompleted ? 0 : 1)) campaign_.report.broken(fmt::format("{}: {} stop records", what, stops));
    if (hasCompleted && application_ != Application::updated) {
      campaign_.report.broken(fmt::format("{}: completed, but the application is {}", what, name(application_)));
    }
    const bool hasBegun = std::ranges::find(records_, replaces) != records_.end();
    if (!hasBegun && application_ != Application::old) {
      campaign_.report.broken(fmt::format("{}: the application is {} before its time", what, name(application_)));
    }
    if (left_.mounts > 0) campaign_.report.broken(what + ": still mounted");
    if (hasCompleted) {
      ++tally.completed;
      if (stillRuns_) ++tally.unasked;
    } else if (std::ranges::any_of(records_, [&](const auto& text) { return tells(text, sabotage.error); })) {
      ++tally.told;
    } else {
      const std::string reason = reasonForStop();
      ++tally.other[reason];
      if (reason.contains("Code=")) {
        campaign_.report.broken(fmt::format("{}: another error in “{}”", what, reason));
      }
    }
  }

  /// As an error of the system, or as one of the verifier's, which counts the system's from 100000 on.
  static bool tells(const std::string& record, int error) {
    return record.contains(fmt::format("NSPOSIXErrorDomain, Code={}}}", error)) ||
           record.contains(fmt::format("NSOSStatusErrorDomain, Code={}}}", 100000 + error));
  }

  /// The last record before the one that says that the installer stopped, or that one when nothing else says why.
  [[nodiscard]] std::string reasonForStop() const {
    const auto stop =
        std::ranges::find_if(records_, [](const auto& text) { return text.starts_with("Installer stopped"); });
    if (stop == records_.end() || stop == records_.begin()) return "nothing";
    const std::string& before = *std::prev(stop);
    return before.contains("failed") || before.contains("couldn't") || before.starts_with("Can't") ||
                   before.starts_with("Could not")
               ? before
               : *stop;
  }

  Campaign& campaign_;
  Ground ground_;
  std::vector<std::string> records_;
  Application application_ = Application::old;
  bool stillRuns_ = false;
  Leftovers left_;
  std::map<std::string, Tally> tallies_;
  std::vector<std::string> order_;
};

}  // namespace

void failSystemCalls(Campaign& campaign) {
  campaign.report.heading(
      "Calls on files that fail",
      "One call of the agent's on a file or folder in an install that finds Orvik running, at a time, fails with "
      "ENOSPC, EIO,\n"
      "EACCES, EROFS or EMFILE: a call that changes something with each of them, another with one of them in turn; "
      "of calls\n"
      "that are alike (the same stage, call and path) the first. Those of the tools it starts, of the system log and "
      "of\n"
      "shared libraries are left alone. Each time the agent is to live, to write one stop record or none, to complete "
      "only\n"
      "with the whole new application, to leave the old one alone before it replaces it, and to leave nothing "
      "mounted.");
  campaign.report.row({"stage", "failed calls", "completed all the same", "of these with the old process still running",
                       "stopped with that very error number", "stopped with another record"});
  FailureCampaign(campaign).run(campaign.extent == Extent::full ? 1 : 60);
}

}  // namespace campaign
