#pragma once

#include "Platform/BackgroundTasks.h"
#include "Platform/ChildProcess.h"
#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "Platform/URLContents.h"
#include "Platform/Workspace.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Stand-ins for the platform's facilities that behave, record, and move only when a test says so.
namespace fakes {

class VirtualClock final : public platform::Clock {
 public:
  [[nodiscard]] double uptime() const override { return uptime_; }
  [[nodiscard]] double date() const override { return date_; }
  void moveTo(double uptime) {
    date_ += uptime - uptime_;
    uptime_ = uptime;
  }
  /// Changes the wall clock alone.
  void setForward(double seconds) { date_ += seconds; }

 private:
  double uptime_ = 1000;
  double date_ = 800'000'000;
};

/// Keeps tasks until they are run, on the thread that runs them.
class ManualTasks final : public platform::BackgroundTasks {
 public:
  void start(Priority /*priority*/, std::move_only_function<void()> task) override {
    tasks_.push_back(std::move(task));
  }
  void runAll() {
    while (!tasks_.empty()) {
      auto task = std::move(tasks_.front());
      tasks_.erase(tasks_.begin());
      task();
    }
  }

 private:
  std::vector<std::move_only_function<void()>> tasks_;
};

class ScriptedURLContents final : public platform::URLContents {
 public:
  using Answer = std::expected<std::string, platform::NSError>;
  std::function<Answer(const platform::URL&)> answer;
  std::vector<std::string> requested;

  Answer contents(const platform::URL& url) override {
    requested.push_back(url.absoluteString());
    return answer(url);
  }
};

class RecordingSystemLog final : public platform::SystemLog {
 public:
  struct Entry {
    std::string subsystem;
    std::string category;
    Type type;
    std::string message;
  };
  std::vector<Entry> entries;

  void write(std::string_view subsystem, std::string_view category, Type type, std::string_view message) override {
    entries.push_back({std::string(subsystem), std::string(category), type, std::string(message)});
  }
};

class FakeRunningApplication final : public platform::RunningApplication {
 public:
  FakeRunningApplication(std::optional<std::string> identifier, std::int32_t pid)
      : identifier_(std::move(identifier)), pid_(pid) {}
  [[nodiscard]] const std::optional<std::string>& bundleIdentifier() const override { return identifier_; }
  [[nodiscard]] std::int32_t processIdentifier() const override { return pid_; }
  bool terminate() override { return wasAskedToQuit = true; }
  bool forceTerminate() override { return false; }

  bool wasAskedToQuit = false;

 private:
  std::optional<std::string> identifier_;
  std::int32_t pid_;
};

class FakeWorkspace final : public platform::Workspace {
 public:
  std::vector<platform::URL> registered;
  std::vector<std::shared_ptr<platform::RunningApplication>> running;

  [[nodiscard]] std::vector<platform::URL> urlsForApplications(std::string_view) const override { return registered; }
  [[nodiscard]] std::optional<platform::URL> urlForApplication(std::string_view) const override {
    if (registered.empty()) return std::nullopt;
    return registered.front();
  }
  [[nodiscard]] std::vector<std::shared_ptr<platform::RunningApplication>> runningApplications() const override {
    return running;
  }
};

class RecordingChildProcesses final : public platform::ChildProcessLauncher {
 public:
  platform::ChildProcessResult result{.reason = platform::ChildProcessResult::Reason::exit, .status = 0};
  std::vector<std::vector<std::string>> started;

  platform::ChildProcessResult run(const std::string& launchPath, const std::vector<std::string>& arguments,
                                   Capture /*capture*/) override {
    started.push_back({launchPath});
    started.back().insert(started.back().end(), arguments.begin(), arguments.end());
    return result;
  }
};

}  // namespace fakes
