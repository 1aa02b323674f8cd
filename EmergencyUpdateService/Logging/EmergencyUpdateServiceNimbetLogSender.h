#pragma once

#include "Logging/EmergencyUpdateServiceLogSender.h"
#include "Logging/EmergencyUpdateServiceNimbetLogEntry.h"
#include "Platform/SerialQueue.h"
#include "Platform/URLSession.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>

namespace corvane {

/// Posts each record of `minLogLevel` and above to the remote collector as one JSON object: private values redacted,
/// the agent's identity added. Fire and forget: no batching, no retry, and nothing is ever logged about the delivery.
///
/// The caller pays for the level test, the rendering of what the record only refers to, and the hand-over to the queue.
/// On the queue the records become requests in the order in which they were sent, so those sent after setAgentID()
/// carry the identifier and those before do not. At most `maximumUnderWay` requests are unanswered at once; meanwhile
/// the queue is suspended and the records wait in it, unbounded, each no more than its texts. A collector that hangs
/// for hours thus costs the memory of what was logged meanwhile, and no time of anybody's.
///
/// Records that have not been delivered when the process ends are lost, the ones about its termination among them: a
/// process that was asked to quit does not wait for a collector.
class EmergencyUpdateServiceNimbetLogSender final
    : public EmergencyUpdateServiceLogSender,
      public std::enable_shared_from_this<EmergencyUpdateServiceNimbetLogSender> {
 public:
  using NetworkSession = platform::URLSession;
  using NetworkSessionDataTask = platform::URLSessionTask;
  using Entry = EmergencyUpdateServiceNimbetLogEntry;

  struct Configuration {
    platform::URL baseURL;
    std::string origin;
    std::string application;
    LogEnvironment environment;
    std::string version;
    std::string osVersion;
    std::string osArch;
    LogLevel minLogLevel;
  };

  static constexpr platform::TimeInterval requestTimeoutSeconds = 30;
  static constexpr int maximumUnderWay = platform::URLSession::maximumDataTransfers;

  EmergencyUpdateServiceNimbetLogSender(std::shared_ptr<platform::SerialQueue> queue,
                                        std::shared_ptr<NetworkSession> networkSession, Configuration configuration)
      : queue_(std::move(queue)),
        networkSession_(std::move(networkSession)),
        configuration_(std::move(configuration)) {}

  void setAgentID(const std::string& agentID) override;
  void send(const LogRecord& record) override;
  [[nodiscard]] LogLevel minLogLevel() const override { return configuration_.minLogLevel; }

 private:
  /// A record while it waits.
  struct Waiting {
    std::string_view name;
    std::string_view file;
    std::string_view function;
    std::string message;
    std::unique_ptr<const nlohmann::ordered_json> extra;
    std::uint32_t line;
    LogLevel level;
  };

  void process(const Waiting& record);
  void post(std::string body);
  void postEnded();

  const std::shared_ptr<platform::SerialQueue> queue_;
  const std::shared_ptr<NetworkSession> networkSession_;
  const Configuration configuration_;
  std::optional<std::string> agentID_;  // on the queue only
  std::atomic<int> underWay_ = 0;
};

}  // namespace corvane
