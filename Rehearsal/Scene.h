#pragma once

#include "Rehearsal/ChildProgram.h"
#include "Rehearsal/Collector.h"
#include "Rehearsal/HTTPSServer.h"
#include "Rehearsal/LogFollower.h"
#include "Rehearsal/StandInMac.h"
#include "Rehearsal/Transcript.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
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
};

/// A step of a rehearsal that did not go as it should; the text says which.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A stand-in Mac with an older main application in /Applications, the agent where it is usually installed, and servers
/// for the hosts it will ask, all shown on a transcript. Steps that do not happen throw Failure.
class Scene {
 public:
  Scene(const Stage& stage, const Setting& setting, Transcript& transcript);

  [[nodiscard]] const StandInMac& mac() const { return mac_; }
  [[nodiscard]] std::filesystem::path orvik() const { return mac_.sysroot() / "Applications/Orvik.app"; }

  /// Answers for a host, over TLS, from a port on loopback.
  void serve(const std::string& host, const HTTPSServer::Handler& handler);

  /// Answers for the log collector's host, and shows the extra value of a record that was posted there.
  void serveCollector(const std::string& host);
  void showCollected(const std::string& message);

  /// Runs one of the Mac's tools to its end.
  void runTool(const std::string& path, const std::vector<std::string>& arguments) const;

  /// From here on the agent and the tools run as an ordinary user, to whom the whole Mac belongs: root may do anything,
  /// whatever the permissions say. Changes nothing when this process is no root.
  void handToOrdinaryUser();

  /// The program of the installed agent.
  [[nodiscard]] std::filesystem::path agentExecutable() const;
  void startAgent();
  /// Shows the agent's records up to the first whose message is one of these, and returns that.
  std::string reach(const std::vector<std::string>& messages);
  [[nodiscard]] pid_t agentProcessIdentifier() const { return agent_->processIdentifier(); }
  /// Asks the agent to quit and shows how it ends.
  void quitAgent();

  /// The version of Orvik that runs, and how it was started; absent when it does not run.
  struct Running {
    pid_t processIdentifier;
    std::string version;
    std::vector<std::string> arguments;
  };
  [[nodiscard]] std::optional<Running> runningOrvik() const;
  void showRunningOrvik(const std::string& heading) const;

 private:
  void installAgent() const;
  [[nodiscard]] ChildProgram start(const std::filesystem::path& executable,
                                   const std::vector<std::string>& arguments) const;

  Stage stage_;
  Transcript& transcript_;
  StandInMac mac_;
  LogFollower log_{mac_.systemLog()};
  CertificateAuthority authority_;
  Collector collector_;
  struct Server {
    Credentials credentials;
    std::unique_ptr<HTTPSServer> server;
  };
  std::vector<Server> servers_;
  std::optional<ChildProgram> agent_;
  bool belongsToOrdinaryUser_ = false;
};

}  // namespace rehearsal
