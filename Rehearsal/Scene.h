#pragma once

#include "Rehearsal/ChildProgram.h"
#include "Rehearsal/Collector.h"
#include "Rehearsal/HTTPSServer.h"
#include "Rehearsal/LogFollower.h"
#include "Rehearsal/StandInMac.h"
#include "Rehearsal/Transcript.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace rehearsal {

/// What a rehearsal needs to know of the build it rehearses.
struct Stage {
  std::filesystem::path prefix;  // where the build is installed: the agent's bundle, sysroot/, Orvik.app
  bool keepsMac = false;         // leave the stand-in Mac behind to be looked at
};

/// The Mac a rehearsal plays on.
struct Setting {
  std::string installedVersion = "1.79.3";
  std::string systemVersion = "14.5";
  std::string machineName = "arm64";
  std::string userName = "home";
};

/// A step of a rehearsal that did not go as it should; the text says which.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Gives what lies there, and below, to the ordinary user (Scene::handToOrdinaryUser).
void handOver(const std::filesystem::path& path);

/// A stand-in Mac with an older main application in /Applications, the agent where it is usually installed, and servers
/// for the hosts it will ask, all shown on a transcript. Steps that do not happen throw Failure.
class Scene {
 public:
  Scene(const Stage& stage, const Setting& setting, Transcript& transcript);
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;
  /// Ends every program of this Mac, and the transcript's part of it with the totals of what came to its collector, if
  /// it has one.
  ~Scene();

  [[nodiscard]] const StandInMac& mac() const { return mac_; }
  [[nodiscard]] std::filesystem::path agentBundle() const;
  [[nodiscard]] std::filesystem::path orvik() const { return mac_.sysroot() / "Applications/Orvik.app"; }

  /// Answers for a host, over TLS, from a port on loopback.
  void serve(const std::string& host, const HTTPSServer::Handler& handler);

  /// Answers for the log collector's host; from here on each record is shown with a mark whether it came there.
  void serveCollector(const std::string& host);
  void requireCollected(const std::string& message);

  /// Runs one of the Mac's tools to its end.
  void runTool(const std::string& path, const std::vector<std::string>& arguments) const;

  /// From here on the agent and the tools run as an ordinary user, to whom the whole Mac belongs: root may do anything,
  /// whatever the permissions say. Changes nothing when this process is no root.
  void handToOrdinaryUser();

  /// How to start one of the Mac's programs as its user: the agent without arguments, for one.
  struct Command {
    std::filesystem::path executable;
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
  };
  [[nodiscard]] Command command(const std::filesystem::path& executable,
                                const std::vector<std::string>& arguments) const;
  [[nodiscard]] std::filesystem::path agentExecutable() const;

  void startAgent();
  /// Shows the agent's records up to the first whose message is one of these, and returns that.
  LogEntry reach(const std::vector<std::string>& messages, std::chrono::seconds limit = usualLimit);
  [[nodiscard]] pid_t agentProcessIdentifier() const { return agent_->processIdentifier(); }
  /// Asks the agent to quit, shows how it ends, and returns the records it left meanwhile.
  std::vector<LogEntry> quitAgent();
  /// The same for an agent that ends of its own accord.
  std::vector<LogEntry> awaitEndOfAgent();

  /// Starts Orvik and waits until it has told everybody so. Not for a Mac that was handed to an ordinary user.
  void openOrvik();
  /// Posts a distributed notification, as the main application and its updater do.
  void post(const std::string& name);

  /// The version of Orvik that runs, and how it was started; absent when it does not run.
  struct Running {
    pid_t processIdentifier;
    std::string version;
    std::vector<std::string> arguments;
  };
  [[nodiscard]] std::optional<Running> runningOrvik() const;
  void showRunningOrvik(const std::string& heading) const;
  /// Asks the running Orvik to quit and waits until it has.
  void quitOrvik();

  /// No step takes nearly so long on a machine that is not overloaded, unless it has to wait by design.
  static constexpr std::chrono::seconds usualLimit{60};

 private:
  void installAgent() const;
  [[nodiscard]] ChildProgram start(const std::filesystem::path& executable,
                                   const std::vector<std::string>& arguments) const;
  std::optional<LogEntry> next(std::chrono::steady_clock::time_point deadline);

  Stage stage_;
  Transcript& transcript_;
  StandInMac mac_;
  LogFollower log_{mac_.systemLog()};
  CertificateAuthority authority_;
  Collector collector_;
  bool hasCollector_ = false;
  std::size_t records_ = 0;  // shown
  struct Server {
    Credentials credentials;
    std::unique_ptr<HTTPSServer> server;
  };
  std::vector<Server> servers_;
  std::optional<ChildProgram> agent_;
  bool belongsToOrdinaryUser_ = false;
};

}  // namespace rehearsal
