#include "launchctl/Launchctl.h"

#include "Platform/PropertyList.h"
#include "Posix/LaunchdJobs.h"
#include "Posix/PropertyListFile.h"
#include "Posix/RegularFile.h"
#include "Support/ErrorText.h"

#include <cerrno>
#include <optional>

#include <fmt/format.h>
#include <unistd.h>

namespace tools {
namespace {

using platform::PropertyList;
using platform::SMDomain;
using platform::posix::Machine;

constexpr int usageStatus = 64;
constexpr int unsupportedDomain = 125;
constexpr std::string_view extension = ".plist";

/// Says what went wrong as the real tool does, and yields the exit status.
int failed(std::string_view operation, int code) {
  const std::string text = code == unsupportedDomain ? "Domain does not support specified action" : errorText(code);
  fmt::print(stderr, "{} failed: {}: {}\n", operation, code, text);
  return code;
}

bool isOwnDomain(std::string_view domain) {
  return domain == fmt::format("gui/{}", getuid());
}

/// A label names a file, so it must be one name that fits.
bool isUsableLabel(std::string_view label) {
  return !label.empty() && label.size() + extension.size() <= NAME_MAX &&
         label.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

std::string folderOfJobs(const Machine& machine) {
  return machine.temporaryDirectory + "/launchd";
}

std::string fileOfJob(const Machine& machine, std::string_view label) {
  return fmt::format("{}/{}{}", folderOfJobs(machine), label, extension);
}

std::optional<std::string> label(const PropertyList& job) {
  const PropertyList* value = job["Label"];
  if (value == nullptr || value->string() == nullptr || !isUsableLabel(*value->string())) return std::nullopt;
  return *value->string();
}

/// A job runs on demand unless it is to be kept alive; a dictionary of conditions keeps it alive too.
bool isOnDemand(const PropertyList& job) {
  if (const PropertyList* onDemand = job["OnDemand"]; onDemand != nullptr && onDemand->as<bool>() != nullptr) {
    return *onDemand->as<bool>();
  }
  const PropertyList* keepAlive = job["KeepAlive"];
  if (keepAlive == nullptr) return true;
  const bool* plain = keepAlive->as<bool>();
  return plain != nullptr ? !*plain : keepAlive->dictionary() == nullptr;
}

int bootstrap(const Machine& machine, const std::string& domain, const std::string& plist) {
  if (!isOwnDomain(domain)) return failed("Bootstrap", unsupportedDomain);
  const std::string path = machine.sysroot.machinePath(plist);
  if (access(path.c_str(), F_OK) != 0) return failed("Bootstrap", ENOENT);
  const auto job = platform::posix::readDictionary(path);
  const auto name = job ? label(*job) : std::nullopt;
  if (!name) return failed("Bootstrap", EIO);
  const std::string loaded = fileOfJob(machine, *name);
  if (access(loaded.c_str(), F_OK) == 0) return failed("Bootstrap", EIO);
  PropertyList::Dictionary dictionary = *job->dictionary();
  dictionary.insert_or_assign("OnDemand", isOnDemand(*job));
  const std::string bytes = PropertyList(std::move(dictionary)).serialized(PropertyList::Format::xml);
  const bool done = platform::posix::makeFolders(folderOfJobs(machine), 0700) == 0 &&
                    platform::posix::replaceFile(loaded, bytes) == 0;
  return done ? 0 : failed("Bootstrap", EIO);
}

int bootout(const Machine& machine, const std::string& target) {
  const auto slash = target.find('/', target.find('/') + 1);
  if (!isOwnDomain(target.substr(0, slash))) return failed("Boot-out", unsupportedDomain);
  const std::string name = slash == std::string::npos ? "" : target.substr(slash + 1);
  if (!isUsableLabel(name) || unlink(fileOfJob(machine, name).c_str()) != 0) return failed("Boot-out", ESRCH);
  return 0;
}

int list(const Machine& machine) {
  const PropertyList jobs = platform::posix::LaunchdJobs(machine.temporaryDirectory)
                                .copyAllJobDictionaries(SMDomain::userLaunchd)
                                .value_or(PropertyList::Array());
  fmt::print("PID\tStatus\tLabel\n");
  for (const PropertyList& job : *jobs.as<PropertyList::Array>()) {
    if (const auto name = label(job)) fmt::print("-\t0\t{}\n", *name);
  }
  return 0;
}

}  // namespace

int launchctl(const Machine& machine, const std::vector<std::string>& words) {
  const std::string operation = words.empty() ? "" : words.front();
  if (operation == "bootstrap" && words.size() == 3) return bootstrap(machine, words[1], words[2]);
  if (operation == "bootout" && words.size() == 2) return bootout(machine, words[1]);
  if (operation == "list" && words.size() == 1) return list(machine);
  fmt::print(stderr, "Usage: launchctl bootstrap gui/UID PLIST | bootout gui/UID/LABEL | list\n");
  return usageStatus;
}

}  // namespace tools
