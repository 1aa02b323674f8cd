#include "Logging/EmergencyUpdateServiceLogger.h"

#include "Logging/EmergencyUpdateServiceNimbetLogSender.h"
#include "Logging/EmergencyUpdateServicePrintLogSender.h"

#include <array>
#include <atomic>
#include <utility>

namespace corvane {
namespace {

constexpr std::array<std::string_view, 5> rawValues = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR"};

/// The sender, and the pointer to it that log calls read. Never destroyed: background work may log until the very end.
struct SharedSender {
  std::shared_ptr<EmergencyUpdateServiceLogSender> owner = std::make_shared<EmergencyUpdateServiceNullLogSender>();
  std::atomic<EmergencyUpdateServiceLogSender*> current = owner.get();
};

SharedSender& shared() {
  static SharedSender& sender = *new SharedSender;
  return sender;
}

std::shared_ptr<EmergencyUpdateServiceLogSender> makeNimbetLogSender(
    const EmergencyUpdateServiceBackendEnvironment& backend, const EmergencyUpdateServiceRuntimeEnvironment& runtime,
    const EmergencyUpdateServiceLogger::Facilities& facilities) {
  using Sender = EmergencyUpdateServiceNimbetLogSender;
  return std::make_shared<Sender>(
      facilities.serialQueues.serialQueue("com.corvane.EmergencyUpdateService.NimbetLogSender"),
      facilities.urlSessions.session({}),
      Sender::Configuration{.baseURL = backend.nimbet,
                            .origin = backend.origin,
                            .application = backend.application,
                            .environment = LogEnvironment::prod,
                            .version = runtime.version,
                            .osVersion = runtime.osVersion,
                            .osArch = runtime.devicePlatform,
                            .minLogLevel = LogLevel::info});
}

}  // namespace

std::string_view rawValue(LogEnvironment environment) {
  return environment == LogEnvironment::prod ? "prod" : "debug";
}

std::string_view rawValue(LogLevel level) {
  return rawValues[static_cast<std::size_t>(level)];
}

std::optional<LogLevel> logLevel(std::string_view rawValue) {
  for (std::size_t i = 0; i < rawValues.size(); ++i) {
    if (rawValues[i] == rawValue) return static_cast<LogLevel>(i);
  }
  return std::nullopt;
}

EmergencyUpdateServiceLogSender& EmergencyUpdateServiceLogger::sharedSender() {
  return *shared().current.load(std::memory_order_acquire);
}

std::shared_ptr<EmergencyUpdateServiceLogSender> EmergencyUpdateServiceLogger::setSharedSender(
    std::shared_ptr<EmergencyUpdateServiceLogSender> sender) {
  // Readers may for a moment see one of the two without the other: the sender judges each record itself.
  minLogLevel_.store(sender ? sender->minLogLevel() : LogLevel::trace, std::memory_order_relaxed);
  shared().current.store(sender.get(), std::memory_order_release);
  return std::exchange(shared().owner, std::move(sender));
}

void EmergencyUpdateServiceLogger::configure(
    const std::optional<EmergencyUpdateServiceBackendEnvironment>& backendEnvironment,
    const std::optional<EmergencyUpdateServiceRuntimeEnvironment>& runtimeEnvironment, const Facilities& facilities) {
  if (!backendEnvironment || !runtimeEnvironment) return;
  std::vector<std::shared_ptr<EmergencyUpdateServiceLogSender>> loggers;
  loggers.push_back(std::make_shared<EmergencyUpdateServicePrintLogSender>(facilities.systemLog, LogLevel::debug));
  loggers.push_back(makeNimbetLogSender(*backendEnvironment, *runtimeEnvironment, facilities));
  setSharedSender(std::make_shared<EmergencyUpdateServiceCompositeLogSender>(std::move(loggers)));
}

}  // namespace corvane
