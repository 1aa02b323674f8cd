#pragma once

#include "Logging/EmergencyUpdateServiceLogSender.h"
#include "Platform/SystemLog.h"

namespace corvane {

/// Writes records of `minLogLevel` and above to the system log: subsystem "com.corvane", the logger's name as category,
/// the full rendering as text, private values included, followed by the extra value where that has a textual
/// description.
class EmergencyUpdateServicePrintLogSender final : public EmergencyUpdateServiceLogSender {
 public:
  EmergencyUpdateServicePrintLogSender(platform::SystemLog& systemLog, LogLevel minLogLevel)
      : systemLog_(systemLog), minLogLevel_(minLogLevel) {}

  void setAgentID(const std::string& /*agentID*/) override {}
  void send(const LogRecord& record) override;
  [[nodiscard]] LogLevel minLogLevel() const override { return minLogLevel_; }

 private:
  platform::SystemLog& systemLog_;
  const LogLevel minLogLevel_;
};

}  // namespace corvane
