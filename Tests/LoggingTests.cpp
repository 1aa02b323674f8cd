#include "CommandLine/CommandExecutor.h"
#include "EmergencyUpdateList/EmergencyUpdateListValidator.h"
#include "Errors/AnyError.h"
#include "Logging/EmergencyUpdateServicePrintLogSender.h"
#include "Support/Fakes.h"
#include "Support/RecordingLogSender.h"

#include <gmock/gmock.h>

using namespace corvane;
using platform::NSError;
using testing::ElementsAre;

namespace errors {

/// An error in the form of an enumeration with a payload: failed(path, reason), lost(path), or stopped(reason).
struct TransferError {
  std::string_view name;
  std::vector<EnumCase::Payload> payloads;
};
ErrorReflection errorReflection(const TransferError& error) {
  return {.displayStyle = ErrorReflection::DisplayStyle::enumeration,
          .typeName = "TransferError",
          .domain = "M.TransferError",
          .code = 2,
          .enumCase = EnumCase{"M.TransferError", error.name, error.payloads}};
}

struct Declared {
  static std::string_view errorDomain() { return "declared"; }
  static int errorCode() { return 7; }
};
ErrorReflection errorReflection(const Declared& /*error*/) {
  return {.displayStyle = ErrorReflection::DisplayStyle::structure,
          .typeName = "Declared",
          .domain = "M.Declared",
          .description = "Declared(secret: 1)",
          .underlyingError = NSError(platform::NSPOSIXErrorDomain, 5, {{"NSFilePath", std::string("/Users/x")}})};
}

struct Codified : Declared {
  static int code() { return -9; }
  static std::string safeDescription() { return "disk"; }
};
ErrorReflection errorReflection(const Codified& /*error*/) {
  return {.displayStyle = ErrorReflection::DisplayStyle::classInstance, .typeName = "Codified", .domain = "M.Codified"};
}

}  // namespace errors

namespace {

using ValidationFailure = EmergencyUpdateListValidator::ValidationFailure;

NSError cocoa(std::int64_t code) {
  return {platform::NSCocoaErrorDomain, code};
}

/// The segments of a message, private ones in brackets, errors in braces.
std::vector<std::string> segments(const EmergencyUpdateServiceLogMessage& message) {
  std::vector<std::string> texts;
  const auto interpolation = message.stringInterpolation();
  if (!interpolation) return {"literal: " + std::string(message.stringLiteral().value_or("(none)"))};
  for (const auto& value : interpolation->values) {
    if (const auto* text = std::get_if<std::string>(&value)) texts.push_back(*text);
    if (const auto* error = std::get_if<AnyError>(&value)) texts.push_back("{" + error->description() + "}");
    if (const auto* hidden = std::get_if<EmergencyUpdateServiceLogMessage::Private>(&value)) {
      texts.push_back("[" + hidden->text + "]");
    }
  }
  texts.push_back(std::to_string(interpolation->literalCapacity));
  return texts;
}

TEST(LogMessage, IsALiteralOrSegmentsInWritingOrder) {
  EXPECT_THAT(segments({"Downloading"}), ElementsAre("literal: Downloading"));
  EXPECT_THAT(segments({""}), ElementsAre("literal: "));
  EXPECT_THAT(segments({}), ElementsAre("literal: (none)"));
  EXPECT_THAT(segments({"{} command execution failed with status {}", "touch", 1}),
              ElementsAre("", "touch", " command execution failed with status ", "1", "", "38"));
  EXPECT_THAT(segments({"{}{}", std::int64_t{-5}, std::string("x")}), ElementsAre("", "-5", "", "x", "", "0"));
  EXPECT_THAT(
      segments({"Opened {} of {}: {}.", hidden(std::string("/Users/x")), hidden(7U), ValidationFailure::noActions}),
      ElementsAre("Opened ", "[/Users/x]", " of ", "[7]", ": ", "{(ValidationFailure.noActions)}", ".", "14"));
}

TEST(LogMessage, RendersPrivateValuesOnlyLocally) {
  const std::string path = "/Users/x";
  const auto renderings = [](const EmergencyUpdateServiceLogMessage& message) {
    return message.description() + "|" + message.fullRendering();
  };
  EXPECT_EQ(renderings({"Downloading"}), "Downloading|Downloading");
  EXPECT_EQ(renderings({"at {}", hidden(path)}), "at <private>|at /Users/x");
  EXPECT_EQ(
      renderings({"{} {{}", ValidationFailure::noActions, hidden(cocoa(4))}),
      "(ValidationFailure.noActions) {<private>|(ValidationFailure.noActions) {(NSError domain=NSCocoaErrorDomain "
      "code=4 userInfo=[:])");
}

TEST(LogLevels, HaveAnOrderAndRawValues) {
  EXPECT_LT(LogLevel::info, LogLevel::warn);
  std::string words;
  for (const auto level : {LogLevel::trace, LogLevel::debug, LogLevel::info, LogLevel::warn, LogLevel::error}) {
    EXPECT_EQ(logLevel(rawValue(level)), level);
    words.append(rawValue(level)).append(" ");
  }
  EXPECT_EQ(words, "TRACE DEBUG INFO WARN ERROR ");
  for (const char* word : {"warn", "Warn", "WARNING", "WARN ", ""}) EXPECT_FALSE(logLevel(word)) << word;
}

TEST(Logger, PassesOnWhatTheCallSays) {
  const fakes::RecordingLogSender log;
  const std::vector<std::string> extra = {"a"};
  EmergencyUpdateServiceLogger("Name").trace({"text"}, at("f(_:)"), extra);
  const unsigned line = __LINE__ - 1;
  ASSERT_EQ(log.records().size(), 1U);
  const auto& record = log.records()[0];
  EXPECT_EQ(record.text(), "trace Name: text");
  EXPECT_EQ(record.line, line);
  EXPECT_EQ(record.function, "f(_:)");
  EXPECT_EQ(record.extra, nlohmann::ordered_json({"a"}));
}

struct Undescribed {};
nlohmann::ordered_json encode(const Undescribed& /*value*/) {
  return {{"a", 1}};
}

TEST(PrintLogSender, WritesFromItsLevelUp) {
  fakes::RecordingSystemLog systemLog;
  const auto before =
      EmergencyUpdateServiceLogger::setSharedSender(std::make_shared<EmergencyUpdateServiceCompositeLogSender>(
          std::vector<std::shared_ptr<EmergencyUpdateServiceLogSender>>{
              std::make_shared<EmergencyUpdateServicePrintLogSender>(systemLog, LogLevel::debug)}));
  const EmergencyUpdateServiceLogger logger("Component");
  const std::vector<std::string> words = {"a", "b"};
  logger.trace({"t"}, at("f"));
  logger.debug({"d {}", hidden("secret")}, at("f"));
  logger.info({"i"}, at("f"), words);
  logger.warn({"w"}, at("f"), Undescribed{});
  logger.error({"e"}, at("f"));
  EmergencyUpdateServiceLogger::setSharedSender(before);

  using Type = platform::SystemLog::Type;
  std::vector<std::pair<Type, std::string>> written;
  for (const auto& entry : systemLog.entries) {
    EXPECT_EQ(entry.subsystem + " " + entry.category, "com.corvane Component");
    written.emplace_back(entry.type, entry.message);
  }
  EXPECT_THAT(written,
              ElementsAre(std::pair(Type::standard, "d secret"), std::pair(Type::standard, "i | extra: [\"a\", \"b\"]"),
                          std::pair(Type::error, "w"), std::pair(Type::fault, "e")));
}

TEST(LoggerConfiguration, NeedsBothEnvironments) {
  fakes::RecordingSystemLog systemLog;
  const auto before =
      EmergencyUpdateServiceLogger::setSharedSender(std::make_shared<EmergencyUpdateServiceNullLogSender>());
  const auto& backend = EmergencyUpdateServiceBackendEnvironment::production();
  const EmergencyUpdateServiceRuntimeEnvironment runtime{.version = "1", .osVersion = "1.0.0", .devicePlatform = ""};
  fakes::ImmediateQueues queues;
  fakes::ScriptedURLSessions sessions;
  const EmergencyUpdateServiceLogger::Facilities facilities{systemLog, queues, sessions};
  EmergencyUpdateServiceLogger::configure(std::nullopt, runtime, facilities);
  EmergencyUpdateServiceLogger::configure(backend, std::nullopt, facilities);
  EmergencyUpdateServiceLogger("X").error({"dropped"}, at("f"));
  EmergencyUpdateServiceLogger::configure(backend, runtime, facilities);
  EmergencyUpdateServiceLogger("X").debug({"kept"}, at("f"));
  EmergencyUpdateServiceLogger("X").info({"posted {}", hidden("x")}, at("f"));
  EmergencyUpdateServiceLogger::setSharedSender(before);
  ASSERT_EQ(systemLog.entries.size(), 2U);
  EXPECT_EQ(systemLog.entries[0].message, "kept");
  ASSERT_EQ(sessions.posted.size(), 1U);
  const auto& request = sessions.posted[0];
  EXPECT_EQ(request.httpMethod + " " + request.url.absoluteString(), "POST https://log.corvane.example/logv2");
  EXPECT_EQ(request.httpHeaderFields.at("Origin"), "https://www.corvane.example");
  EXPECT_THAT(queues.labels, ElementsAre("com.corvane.EmergencyUpdateService.NimbetLogSender"));
}

TEST(Errors, DescribeThemselvesByTheirKind) {
  const NSError withPath(platform::NSCocoaErrorDomain, 4, {{"NSFilePath", std::string("/x")}});
  const EnumCase timeout{"M.Reason", "timeout", {}};
  const std::vector<std::pair<AnyError, const char*>> rows = {
      {NSError(platform::NSURLErrorDomain, -1009), "(NSError domain=NSURLErrorDomain code=-1009 userInfo=[:])"},
      {withPath, "(NSError domain=NSCocoaErrorDomain code=4 userInfo=[\"NSFilePath\": /x])"},
      {ValidationFailure::noActions, "(ValidationFailure.noActions)"},
      {errors::TransferError{"failed", {"\"/x\"", timeout}}, "(TransferError.failed(\"/x\", M.Reason.timeout))"},
      {errors::Declared{}, "(Declared(secret: 1))"},
      {errors::Codified{}, "(Codified)"},
      {std::vector<AnyError>{ValidationFailure::noActions, errors::Codified{}},
       "(ValidationFailure.noActions), (Codified)"},
      {std::vector<AnyError>{}, ""},
  };
  for (const auto& [error, text] : rows) EXPECT_EQ(error.description(), text);
}

TEST(Errors, SanitizedDescriptionsHoldNoUserData) {
  const NSError posix(platform::NSPOSIXErrorDomain, 13);
  const EnumCase timeout{"M.Reason", "timeout", {}};
  const EnumCase nested{"M.Reason", "because", {"\"text\"", timeout}};
  const std::vector<std::pair<AnyError, const char*>> rows = {
      {cocoa(4), "{Domain=NSCocoaErrorDomain, Code=4}"},
      {NSError(platform::NSCocoaErrorDomain, 4, {{"NSFilePath", std::string("/Users/x")}}).withUnderlying(posix),
       "{Domain=NSCocoaErrorDomain, Code=4, UnderlyingError={Domain=NSPOSIXErrorDomain, Code=13}}"},
      {NSError("D", -1, {{"NSUnderlyingError", std::string("no error")}}), "{Domain=D, Code=-1}"},
      {ValidationFailure::noActions,
       "{Domain=Corvane_Desktop_Update_Service.EmergencyUpdateListValidator.ValidationFailure, Code=0, "
       "Case=noActions}"},
      {errors::TransferError{"failed", {"\"/Users/x\"", timeout}},
       "{Domain=M.TransferError, Code=2, Case=failed(timeout)}"},
      {errors::TransferError{"lost", {"\"/Users/x\""}}, "{Domain=M.TransferError, Code=2, Case=lost}"},
      {errors::TransferError{"stopped", {nested, timeout}},
       "{Domain=M.TransferError, Code=2, Case=stopped(because(timeout), timeout)}"},
      {errors::Declared{}, "{Domain=declared, Code=7, UnderlyingError={Domain=NSPOSIXErrorDomain, Code=5}}"},
      {errors::Codified{}, "{Domain=declared, Code=-9, SafeDescription=disk}"},
  };
  for (const auto& [error, text] : rows) EXPECT_EQ(sanitizedDescription(error), text);
}

TEST(Errors, AChainOfUnderlyingErrorsIsCut) {
  NSError error = cocoa(0);
  for (int i = 0; i < 1000; ++i) error = cocoa(i).withUnderlying(error);
  const std::string text = sanitizedDescription(error);
  EXPECT_EQ(std::ranges::count(text, '}'), 17) << text;
}

struct FixedProcessInfo final : platform::ProcessInfo {
  platform::OperatingSystemVersion version{14, 0, 0};
  [[nodiscard]] platform::OperatingSystemVersion operatingSystemVersion() const override { return version; }
  [[nodiscard]] std::string unameMachine() const override { return {}; }
};

TEST(CommandExecutor, PassesOnStatusAndOutputsThatAreText) {
  fakes::RecordingChildProcesses children;
  FixedProcessInfo info;
  CommandExecutorImpl executor(children, info);
  children.result = {.reason = platform::ChildProcessResult::Reason::exit,
                     .status = 3,
                     .standardOutput = "abc\n",
                     .standardError = "\xFF"};
  const auto captured = executor.execute(CaptureOutput::yes, "/bin/bash", {"-c", "exit 3"});
  EXPECT_THAT(children.started, ElementsAre(ElementsAre("/bin/bash", "-c", "exit 3")));
  EXPECT_EQ(captured.status, 3);
  EXPECT_EQ(captured.output, "abc\n");
  EXPECT_EQ(captured.errorOutput, std::nullopt);
  EXPECT_EQ(children.captures, platform::ChildProcessLauncher::Capture::yes);
  EXPECT_EQ(executor.execute(CaptureOutput::no, "/bin/bash", {}).output, std::nullopt);
  EXPECT_EQ(children.captures, platform::ChildProcessLauncher::Capture::no);
  info.version = {10, 15, 4};
  EXPECT_EQ(executor.execute(CaptureOutput::yes, "/bin/bash", {}).output, "abc\n");
  info.version = {10, 15, 3};
  EXPECT_EQ(executor.execute(CaptureOutput::yes, "/bin/bash", {}).output, std::nullopt);
}

TEST(CommandExecutor, LogsAFailureWithTheCallersName) {
  const fakes::RecordingLogSender log;
  const EmergencyUpdateServiceLogger logger("Caller");
  CommandExecutionResult{.status = 0}.logIfFailed(logger, "touch");
  EXPECT_TRUE(log.records().empty());
  CommandExecutionResult{.status = 1}.logIfFailed(logger, "touch");
  EXPECT_THAT(log.texts(), ElementsAre("error Caller: touch command execution failed with status 1"));
  EXPECT_EQ(log.records()[0].file + " " + log.records()[0].function,
            "CommandLine/CommandExecutor logIfFailed(using:purpose:)");
}

}  // namespace
