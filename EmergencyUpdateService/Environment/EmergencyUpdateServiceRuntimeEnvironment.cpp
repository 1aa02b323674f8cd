#include "Environment/EmergencyUpdateServiceRuntimeEnvironment.h"

#include <algorithm>

#include <fmt/format.h>

namespace corvane {
namespace {

std::string bundleVersion(const platform::Bundle& bundle) {
  const auto entry = bundle.infoDictionary.find("CFBundleVersion");
  if (entry == bundle.infoDictionary.end() || entry->second.string() == nullptr) return {};
  return *entry->second.string();
}

bool isASCII(char c) {
  return static_cast<unsigned char>(c) < 0x80;
}
bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

std::string devicePlatform(std::string_view machineField) {
  if (!std::ranges::all_of(machineField, isASCII)) return {};
  while (!machineField.empty() && isControl(machineField.front())) machineField.remove_prefix(1);
  while (!machineField.empty() && isControl(machineField.back())) machineField.remove_suffix(1);
  return std::string(machineField);
}

}  // namespace

EmergencyUpdateServiceRuntimeEnvironment EmergencyUpdateServiceRuntimeEnvironment::current(
    const platform::Bundle& mainBundle, const platform::ProcessInfo& processInfo) {
  const auto os = processInfo.operatingSystemVersion();
  return {.version = bundleVersion(mainBundle),
          .osVersion = fmt::format("{}.{}.{}", os.major, os.minor, os.patch),
          .devicePlatform = corvane::devicePlatform(processInfo.unameMachine())};
}

}  // namespace corvane
