#include "CommandLine/CommandExecutor.h"

#include "Extensions/StringExtensions.h"

namespace corvane {
namespace {

/// The first system whose file handles read to the end without exceptions.
constexpr platform::OperatingSystemVersion firstWithReadableOutput{.major = 10, .minor = 15, .patch = 4};

std::optional<std::string> decoded(std::optional<std::string> bytes) {
  return bytes && isUTF8(*bytes) ? std::move(bytes) : std::nullopt;
}

}  // namespace

void CommandExecutionResult::logIfFailed(const EmergencyUpdateServiceLogger& logger, std::string_view purpose) const {
  if (status == 0) return;
  logger.error({"{} command execution failed with status {}", purpose, status}, at("logIfFailed(using:purpose:)"));
}

CommandExecutionResult CommandExecutorImpl::execute(CaptureOutput captureOutput, const std::string& launchPath,
                                                    const std::vector<std::string>& arguments) {
  using Capture = platform::ChildProcessLauncher::Capture;
  const bool captures = captureOutput == CaptureOutput::yes;
  auto child = childProcesses_.run(launchPath, arguments, captures ? Capture::yes : Capture::no);
  CommandExecutionResult result{.status = child.status, .output = {}, .errorOutput = {}};
  if (captures && processInfo_.operatingSystemVersion() >= firstWithReadableOutput) {
    result.output = decoded(std::move(child.standardOutput));
    result.errorOutput = decoded(std::move(child.standardError));
  }
  return result;
}

}  // namespace corvane
