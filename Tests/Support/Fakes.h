#pragma once

#include "Platform/BackgroundTasks.h"
#include "Platform/ChildProcess.h"
#include "Platform/Clock.h"
#include "Platform/DistributedNotificationCenter.h"
#include "Platform/ProcessExit.h"
#include "Platform/SecCode.h"
#include "Platform/SerialQueue.h"
#include "Platform/ServiceManagement.h"
#include "Platform/SystemLog.h"
#include "Platform/URLContents.h"
#include "Platform/URLSession.h"
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

/// Runs actions where they are handed over, as long as the queue is not suspended.
class ImmediateQueues final : public platform::SerialQueues {
 public:
  std::shared_ptr<platform::SerialQueue> serialQueue(const std::string& label) override {
    labels.push_back(label);
    return std::make_shared<Queue>();
  }
  std::vector<std::string> labels;

 private:
  struct Queue final : platform::SerialQueue {
    void async(Action action) override {
      actions.push_back(std::move(action));
      run();
    }
    void suspend() override { ++suspensions; }
    void resume() override {
      --suspensions;
      run();
    }
    void run() {
      while (!actions.empty() && suspensions <= 0) {
        Action action = std::move(actions.front());
        actions.erase(actions.begin());
        action();
      }
    }
    std::vector<Action> actions;
    int suspensions = 0;
  };
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

/// Answers each download by what the test says, on the thread that resumes it. Requests of data tasks are kept, and
/// answered at once unless the test wants to do that itself.
class ScriptedURLSessions final : public platform::URLSessions {
 public:
  struct Answer {
    std::optional<platform::URL> location;
    std::optional<platform::NSError> error;
  };
  std::function<Answer(const platform::URL&)> answer;
  std::vector<std::string> requested;
  std::vector<platform::URLRequest> posted;
  bool answersPosts = true;
  std::vector<platform::URLSession::DataCompletion> unanswered;
  platform::URLSessionConfiguration configuration;

  std::shared_ptr<platform::URLSession> session(const platform::URLSessionConfiguration& with) override {
    configuration = with;
    return std::make_shared<Session>(*this);
  }

 private:
  struct Task final : platform::URLSessionTask {
    std::function<void()> action;
    void resume() override { action(); }
  };
  struct Session final : platform::URLSession {
    explicit Session(ScriptedURLSessions& owner) : owner_(owner) {}
    std::shared_ptr<platform::URLSessionTask> downloadTask(const platform::URL& with,
                                                           DownloadCompletion completionHandler) override {
      auto task = std::make_shared<Task>();
      auto completion = std::make_shared<DownloadCompletion>(std::move(completionHandler));
      task->action = [this, with, completion] {
        owner_.requested.push_back(with.absoluteString());
        const Answer given = owner_.answer(with);
        (*completion)(given.location, std::nullopt, given.error);
      };
      return task;
    }
    std::shared_ptr<platform::URLSessionTask> dataTask(const platform::URLRequest& with,
                                                       DataCompletion completionHandler) override {
      auto task = std::make_shared<Task>();
      auto completion = std::make_shared<DataCompletion>(std::move(completionHandler));
      task->action = [this, with, completion] {
        owner_.posted.push_back(with);
        if (owner_.answersPosts) {
          (*completion)("", platform::URLResponse{.url = with.url, .statusCode = 500}, std::nullopt);
        } else {
          owner_.unanswered.push_back(std::move(*completion));
        }
      };
      return task;
    }
    ScriptedURLSessions& owner_;
  };
};

/// Finds code valid unless told otherwise; keeps what it was asked.
class FakeCodeSecurity final : public platform::CodeSecurity {
 public:
  mutable std::vector<std::string> checked;       // paths
  mutable std::vector<std::string> requirements;  // texts
  bool compiles = true;
  std::map<std::size_t, platform::SecCodeValidity> failures;  // by the number of the check, from 0
  std::string missing;                                        // a path without code

  [[nodiscard]] std::expected<platform::SecRequirement, platform::OSStatus> requirement(
      std::string_view text) const override {
    requirements.emplace_back(text);
    if (!compiles) return std::unexpected(platform::errSecCSReqInvalid);
    return platform::SecRequirement(nullptr);
  }
  [[nodiscard]] std::expected<platform::SecStaticCode, platform::OSStatus> staticCode(
      const platform::URL& url) const override {
    if (url.path() == missing) return std::unexpected(platform::errSecCSStaticCodeNotFound);
    checked.push_back(url.path());
    return platform::SecStaticCode(nullptr);
  }
  [[nodiscard]] platform::SecCodeValidity checkValidity(
      const platform::SecStaticCode& /*code*/, const platform::SecRequirement* /*requirement*/) const override {
    const auto failure = failures.find(checked.size() - 1);
    return failure == failures.end() ? platform::SecCodeValidity{} : failure->second;
  }
};

class FakeServiceManagement final : public platform::ServiceManagement {
 public:
  std::optional<platform::PropertyList> jobs;
  [[nodiscard]] std::optional<platform::PropertyList> copyAllJobDictionaries(platform::SMDomain) const override {
    return jobs;
  }
};

/// Delivers what the test posts, at once.
class LocalNotificationCenter final : public platform::DistributedNotificationCenter {
 public:
  void addObserver(const void* observer, std::string_view name, SuspensionBehavior /*suspensionBehavior*/,
                   Callback callback) override {
    registrations.emplace_back(observer, std::string(name), std::move(callback));
  }
  void removeObserver(const void* observer) override {
    std::erase_if(registrations,
                  [observer](const auto& registration) { return std::get<0>(registration) == observer; });
  }
  void post(std::string_view name, const std::optional<std::string>& object) override {
    for (const auto& [observer, observed, callback] : std::vector(registrations)) {
      if (observed == name) callback({.name = std::string(name), .object = object});
    }
  }
  std::vector<std::tuple<const void*, std::string, Callback>> registrations;
};

class RecordingProcessExit final : public platform::ProcessExit {
 public:
  std::optional<int> status;
  void exitImmediately(int with) override { status = with; }
};

class RecordingChildProcesses final : public platform::ChildProcessLauncher {
 public:
  platform::ChildProcessResult result{.reason = platform::ChildProcessResult::Reason::exit, .status = 0};
  std::vector<std::vector<std::string>> started;
  Capture captures = Capture::no;  // of the last
  /// What a command does, by its words; the exit status.
  std::function<std::int32_t(const std::vector<std::string>&)> behaviour;

  platform::ChildProcessResult run(const std::string& launchPath, const std::vector<std::string>& arguments,
                                   Capture capture) override {
    captures = capture;
    started.push_back({launchPath});
    started.back().insert(started.back().end(), arguments.begin(), arguments.end());
    if (behaviour) result.status = behaviour(started.back());
    return result;
  }
};

}  // namespace fakes
