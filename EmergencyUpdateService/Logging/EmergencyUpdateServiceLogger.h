#pragma once

#include "Environment/EmergencyUpdateServiceBackendEnvironment.h"
#include "Environment/EmergencyUpdateServiceRuntimeEnvironment.h"
#include "Logging/EmergencyUpdateServiceLogSender.h"
#include "Platform/SerialQueue.h"
#include "Platform/SystemLog.h"
#include "Platform/URLSession.h"

#include <atomic>
#include <memory>
#include <optional>
#include <source_location>
#include <string_view>

namespace corvane {

/// Where a log call stands.
struct CallSite {
  std::string_view file;
  std::uint32_t line;
  std::string_view function;
};

/// The caller's file (below the source root, without its extension) and line, with the signature of the operation as
/// the records spell it: at("download(from:)").
consteval CallSite at(const char* function, std::source_location location = std::source_location::current()) {
  constexpr std::string_view root = "EmergencyUpdateService/";
  std::string_view file = location.file_name();
  if (const auto start = file.rfind(root); start != std::string_view::npos) file.remove_prefix(start + root.size());
  return {.file = file.substr(0, file.rfind('.')), .line = location.line(), .function = function};
}

/// The name under which a component logs, and the way to the one process-wide sender. A small value; copies are free.
///
/// A call makes one record and passes it on unchanged. What is to be kept is for the sender to say; a record below all
/// that it keeps ends here, at the price of one comparison. One line a call:
///   logger.info({"Download attempt {}/{}", attempt, "3"}, at("download(from:)"));
/// Errors become error segments, hidden(value) a private one, every other value its text.
class EmergencyUpdateServiceLogger {
 public:
  using LogLevel = corvane::LogLevel;
  using Message = EmergencyUpdateServiceLogMessage;
  using Extra = EmergencyUpdateServiceLogExtra;

  /// A literal.
  struct Name {
    consteval Name(const char* literal) : rawValue(literal) {}  // NOLINT(google-explicit-constructor)
    std::string_view rawValue;
  };

  using Environment = LogEnvironment;

  explicit EmergencyUpdateServiceLogger(Name name) : name_(name) {}

  [[nodiscard]] std::string_view name() const { return name_.rawValue; }

  void trace(const Message& message, CallSite site, Extra extra = {}) const {
    log(LogLevel::trace, message, site, extra);
  }
  void debug(const Message& message, CallSite site, Extra extra = {}) const {
    log(LogLevel::debug, message, site, extra);
  }
  void info(const Message& message, CallSite site, Extra extra = {}) const {
    log(LogLevel::info, message, site, extra);
  }
  void warn(const Message& message, CallSite site, Extra extra = {}) const {
    log(LogLevel::warn, message, site, extra);
  }
  void error(const Message& message, CallSite site, Extra extra = {}) const {
    log(LogLevel::error, message, site, extra);
  }

  void log(LogLevel level, const Message& message, CallSite site, Extra extra) const {
    if (level < minLogLevel_.load(std::memory_order_relaxed)) return;
    sharedSender().send({.name = name_.rawValue,
                         .level = level,
                         .message = message,
                         .extra = extra,
                         .file = site.file,
                         .line = site.line,
                         .function = site.function});
  }

  /// The process-wide sender: the null sender until it is replaced.
  static EmergencyUpdateServiceLogSender& sharedSender();

  /// Replaces the process-wide sender and returns the one before. Readers on other threads see one or the other; nobody
  /// may still be inside the old one when its last owner lets it go. The agent replaces it once, before it starts
  /// anything, and never lets it go.
  static std::shared_ptr<EmergencyUpdateServiceLogSender> setSharedSender(
      std::shared_ptr<EmergencyUpdateServiceLogSender> sender);

  /// What the senders reach the world by.
  struct Facilities {
    platform::SystemLog& systemLog;
    platform::SerialQueues& serialQueues;
    platform::URLSessions& urlSessions;
  };

  /// With both environments present, makes the process-wide sender the composite of all destinations: the system log
  /// from `debug` up, the remote collector from `info` up. Otherwise does nothing.
  static void configure(const std::optional<EmergencyUpdateServiceBackendEnvironment>& backendEnvironment,
                        const std::optional<EmergencyUpdateServiceRuntimeEnvironment>& runtimeEnvironment,
                        const Facilities& facilities);

 private:
  /// The shared sender's, kept here for the many calls whose records it does not want.
  static inline std::atomic<LogLevel> minLogLevel_ = LogLevel::trace;

  Name name_;
};

}  // namespace corvane
