#include "Logging/EmergencyUpdateServicePrintLogSender.h"

namespace corvane {
namespace {

platform::SystemLog::Type logType(LogLevel level) {
  switch (level) {
    case LogLevel::warn:
      return platform::SystemLog::Type::error;
    case LogLevel::error:
      return platform::SystemLog::Type::fault;
    case LogLevel::trace:
    case LogLevel::debug:
    case LogLevel::info:
      break;
  }
  return platform::SystemLog::Type::standard;
}

}  // namespace

void EmergencyUpdateServicePrintLogSender::send(const LogRecord& record) {
  if (record.level < minLogLevel_) return;
  std::string text = record.message.fullRendering();
  if (const auto description = record.extra.textualDescription()) text += " | extra: " + *description;
  systemLog_.write("com.corvane", record.name, logType(record.level), text);
}

}  // namespace corvane
