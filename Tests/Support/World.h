#pragma once

#include "EmergencyUpdateService.h"
#include "Posix/FileUserDefaults.h"
#include "Posix/PosixFileManager.h"
#include "Posix/PosixProcessInfo.h"
#include "Support/Fakes.h"
#include "Support/Machine.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

/// The real one, with something else happening at the beginning of a copy, and calls that fail when all is done.
class InterruptibleFileManager final : public platform::posix::PosixFileManager {
 public:
  using PosixFileManager::PosixFileManager;
  std::function<void(const platform::URL& to)> atCopy = [](const platform::URL&) {};
  std::function<bool(const platform::URL&)> copyFails = never;
  std::function<bool(const platform::URL&)> removalFails = never;
  std::function<bool(const platform::URL&)> listingFails = never;

  std::expected<void, platform::NSError> copyItem(const platform::URL& from, const platform::URL& to) override {
    atCopy(to);
    auto result = PosixFileManager::copyItem(from, to);
    return copyFails(to) ? failure() : result;
  }
  std::expected<void, platform::NSError> removeItem(const platform::URL& item) override {
    auto result = PosixFileManager::removeItem(item);
    return removalFails(item) ? failure() : result;
  }
  std::expected<std::vector<platform::URL>, platform::NSError> contentsOfDirectory(
      const platform::URL& folder) const override {
    if (listingFails(folder)) return failure();
    return PosixFileManager::contentsOfDirectory(folder);
  }

 private:
  static bool never(const platform::URL&) { return false; }
  static std::unexpected<platform::NSError> failure() {
    return std::unexpected(platform::NSError(platform::NSCocoaErrorDomain, 512));
  }
};

/// The whole agent in one process: the real composition over a stand-in Mac's real files, with virtual time, a scripted
/// network and background tasks that run when their time has come.
class World : public testing::Test {
 public:
  static constexpr double hours = 3600;
  static constexpr const char* missingCount = "Emergency update service, times main app missing: ";
  static constexpr const char* identifier = "com.corvane.EmergencyUpdateService";

  World();
  ~World() override;
  /// So that a test can make several, one after the other.
  void TestBody() override {}

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
  /// Lets time pass: every timer that comes due fires, in order, with the work it starts. None once the process has
  /// ended.
  void advance(double seconds);
  /// What is due now happens.
  void settle();

  /// The messages of the system log since the last call.
  std::vector<std::string> records();
  /// The same without what each check for the main application says, and only the "n/2" of that.
  std::vector<std::string> recordsBesidesCounts();
  std::vector<std::string> counts();

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
  fakes::LocalNotificationCenter notifications;
  fakes::RecordingProcessExit processExit;
  platform::Bundle bundle;

 protected:
  platform::posix::Machine machine_;
  InterruptibleFileManager fileManager_;
  platform::posix::HomeSearchPaths searchPaths_;
  platform::posix::PosixProcessInfo processInfo_;
  platform::posix::FileUserDefaultsDomains userDefaults_;

 private:
  platform::Facilities facilities_;
  std::unique_ptr<corvane::EmergencyUpdateService> service_;
  std::shared_ptr<corvane::EmergencyUpdateServiceLogSender> senderBefore_;
};
