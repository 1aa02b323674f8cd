#include "Logging/EmergencyUpdateServiceLogger.h"

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

}  // namespace

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
  shared().current.store(sender.get(), std::memory_order_release);
  return std::exchange(shared().owner, std::move(sender));
}

void EmergencyUpdateServiceLogger::configure(
    const std::optional<EmergencyUpdateServiceBackendEnvironment>& backendEnvironment,
    const std::optional<EmergencyUpdateServiceRuntimeEnvironment>& runtimeEnvironment, platform::SystemLog& systemLog) {
  if (!backendEnvironment || !runtimeEnvironment) return;
  std::vector<std::shared_ptr<EmergencyUpdateServiceLogSender>> loggers;
  loggers.push_back(std::make_shared<EmergencyUpdateServicePrintLogSender>(systemLog, LogLevel::debug));
  setSharedSender(std::make_shared<EmergencyUpdateServiceCompositeLogSender>(std::move(loggers)));
}

}  // namespace corvane
