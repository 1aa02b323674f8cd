#pragma once

#include "EmergencyUpdateService.h"
#include "Posix/FileUserDefaults.h"
#include "Posix/PosixFileManager.h"
#include "Posix/PosixProcessInfo.h"
#include "Rehearsal/StandInMac.h"
#include "Support/Fakes.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

/// The whole agent in one process: the real composition over a stand-in Mac's real files, with virtual time, a scripted
/// network and background tasks that run when their time has come.
class World : public testing::Test {
 public:
  static constexpr double hours = 3600;
  static constexpr const char* identifier = "com.corvane.EmergencyUpdateService";

  World();
  ~World() override;

  /// Puts the main application into /Applications.
  void installs(const std::string& version);
  void serves(const std::string& list);
  void servesNothing();
  /// Runs the agent from a place outside any bundle.
  void hasNoBundleIdentifier();
  void stores(const platform::PropertyList& value, const std::string& key);

  corvane::EmergencyUpdateService& service();
  /// Launches the agent and lets its background tasks finish.
  void launch();
  /// Lets time pass: every timer that comes due fires, in order, with the work it starts.
  void advance(double seconds);
  /// What is due now happens.
  void settle();

  /// The messages of the system log since the last call.
  std::vector<std::string> records();

  rehearsal::StandInMac mac;
  fakes::VirtualClock clock;
  platform::RunLoop runLoop{clock};
  fakes::ManualTasks tasks;
  fakes::ImmediateQueues queues;
  fakes::ScriptedURLContents network;
  fakes::RecordingSystemLog systemLog;
  fakes::FakeWorkspace workspace;
  fakes::RecordingChildProcesses childProcesses;
  fakes::ScriptedURLSessions downloads;
  fakes::FakeCodeSecurity codeSecurity;
  fakes::FakeServiceManagement serviceManagement;
  platform::Bundle bundle;

 private:
  platform::posix::Machine machine_;
  platform::posix::PosixFileManager fileManager_;
  platform::posix::HomeSearchPaths searchPaths_;
  platform::posix::PosixProcessInfo processInfo_;
  platform::posix::FileUserDefaultsDomains userDefaults_;
  platform::Facilities facilities_;
  std::unique_ptr<corvane::EmergencyUpdateService> service_;
  std::shared_ptr<corvane::EmergencyUpdateServiceLogSender> senderBefore_;
};
