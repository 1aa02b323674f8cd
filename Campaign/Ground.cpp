#include "Campaign/Ground.h"

#include "Platform/PropertyList.h"
#include "Rehearsal/Maker.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fstream>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

namespace campaign {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using rehearsal::HTTPRequest;
using rehearsal::HTTPResponse;

constexpr auto glance = 5ms;  // between two looks at what sends no signal
constexpr const char* standardList = R"({"version":"1","updates":[{"date":"","appVersions":["1",""],
    "actions":[{"install":{"url":"https://images.corvane.example/Orvik.dmg"}}]}]})";

void copyAsItIs(const fs::path& from, const fs::path& to) {
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

/// Whether an agent has threads besides the main one and those that stay for a while: a task's.
bool hasTask(pid_t agent) {
  std::error_code gone;
  for (const auto& thread : fs::directory_iterator(fmt::format("/proc/{}/task", agent), gone)) {
    std::string name;
    std::getline(std::ifstream(thread.path() / "comm"), name);
    const bool stays = name == "URLSession" || name == "NimbetLogSender";
    if (!stays && thread.path().filename() != std::to_string(agent)) return true;
  }
  return false;
}

void empty(const fs::path& folder) {
  for (const auto& entry : fs::directory_iterator(folder)) fs::remove_all(entry.path());
}

}  // namespace

const char* name(Application application) {
  static constexpr std::array names{"old", "new", "partial", "gone"};
  return names.at(static_cast<std::size_t>(application));
}

std::string Leftovers::text() const {
  std::string all;
  const auto add = [&](std::size_t count, const char* what) {
    if (count > 0) all += fmt::format("{}{} {}", all.empty() ? "" : ", ", count, what);
  };
  add(sessionFiles, "session file");
  add(folders, "folder");
  add(unpackedApplications, "unpacked app");
  add(mounts, "mount");
  return all.empty() ? "nothing" : all;
}

bool endsCheck(const std::string& message) {
  static constexpr std::array ends{
      "Check aborted, could not download",    "Check aborted, could not parse", "Validation succeeded with no updates",
      "Validation succeeded with no matches", "Dry run action triggered",       "Cleaning up",
  };
  return message.starts_with("Validation failed") || std::ranges::find(ends, message) != ends.end() ||
         (message.starts_with("Installer stopped") && !message.ends_with("replacing app files failed") &&
          !message.ends_with("final verification failed"));
}

Ground::Ground(const fs::path& prefix, std::size_t ballastBytes) : scene_({.prefix = prefix}, {}, transcript_) {
  const rehearsal::Maker maker(scene_, prefix / "Orvik.app");
  image_ = maker.pack({.ballastBytes = ballastBytes});
  updatedContents_ = contents(mac().folder() / "maker/volume/Orvik.app");
  old_ = mac().folder() / "Orvik.before";
  copyAsItIs(scene_.orvik(), old_);
  oldContents_ = contents(old_);
  mac().trust(authority_.certificatePEM());
  listServer_ = std::make_unique<rehearsal::HTTPSServer>(
      listCredentials_, [this](const HTTPRequest&) { return HTTPResponse{.body = list_}; });
  imageServer_ = std::make_unique<rehearsal::HTTPSServer>(imageCredentials_, [this](const HTTPRequest&) {
    if (const auto happens = std::exchange(beforeImage_, nullptr)) happens();
    return HTTPResponse{.file = image_};
  });
  scene_.handToOrdinaryUser();
  reset();
}

void Ground::reset() {
  mac().endPrograms();
  orvik_.reset();
  list_ = standardList;
  beforeImage_ = nullptr;
  routes_.clear();
  route(listHost, listServer_->port());
  route(imageHost, imageServer_->port());
  route(logHost, 0);
  fs::remove_all(scene_.orvik());
  copyAsItIs(old_, scene_.orvik());
  rehearsal::handOver(scene_.orvik());
  empty(mac().temporaryDirectory());
  empty(mac().sysroot() / "Volumes");
  fs::remove(mac().systemLog());
}

rehearsal::ChildProgram Ground::startAgent() const {
  const auto command = agent();
  return {command.executable, command.arguments, command.environment};
}

std::vector<pid_t> Ground::runningOrvik() const {
  std::vector<pid_t> running;
  const std::string executable = scene_.orvik() / "Contents/MacOS/Orvik";
  for (const auto& process : fs::directory_iterator("/proc")) {
    std::error_code none;  // not a process, or one that has ended
    const std::string runs = fs::read_symlink(process.path() / "exe", none);
    // Of a file that has been replaced the kernel says so after its path.
    if (runs.starts_with(executable)) running.push_back(std::stoi(process.path().filename()));
  }
  return running;
}

void Ground::startOrvik(const std::string& script, std::size_t count) {
  // Whoever waits for its end must not wait for a parent that is slow to notice, so it gets one that does nothing else.
  const auto shell = scene_.command("/bin/sh", {"-c", script, scene_.orvik() / "Contents/MacOS/Orvik"});
  orvik_.emplace(shell.executable, shell.arguments, shell.environment);
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (runningOrvik().size() < count) {
    if (std::chrono::steady_clock::now() > deadline) throw rehearsal::Failure("Orvik does not start");
    std::this_thread::sleep_for(glance);
  }
}

void Ground::endOrvik() {
  for (std::vector<pid_t> running; !(running = runningOrvik()).empty(); std::this_thread::sleep_for(glance)) {
    for (const pid_t process : running) kill(process, SIGKILL);
  }
  orvik_.reset();
}

void Ground::route(const std::string& host, unsigned port, unsigned of) {
  routes_[fmt::format("{}:{}", host, of)] = port;
  std::string lines;
  for (const auto& [to, at] : routes_) lines += fmt::format("{}:127.0.0.1:{}\n", to, at == 0 ? 1 : at);
  rehearsal::writeFile(mac().sysroot() / "etc/connect-to", lines);
}

/// Every path below a bundle, with what is there.
std::string Ground::contents(const fs::path& bundle) const {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(bundle)) {
    // A name beyond ASCII comes out of an image in other bytes than it went in.
    const bool isASCII =
        std::ranges::all_of(entry.path().filename().string(), [](unsigned char c) { return c < 0x80; });
    const fs::path name = isASCII ? entry.path() : entry.path().parent_path() / "(beyond ASCII)";
    files[name.lexically_relative(bundle)] = entry.is_regular_file() ? rehearsal::readFile(entry) : "";
  }
  std::string text;
  for (const auto& [path, bytes] : files) text += fmt::format("{} {} {}\n", path, bytes.size(), bytes);
  return text;
}

Application Ground::application() const {
  if (!fs::exists(scene_.orvik())) return Application::gone;
  const std::string now = contents(scene_.orvik());
  if (now == oldContents_) return Application::old;
  return now == updatedContents_ ? Application::updated : Application::partial;
}

std::optional<std::string> Ground::applicationVersion() const {
  const fs::path file = scene_.orvik() / "Contents/Info.plist";
  if (!fs::exists(file)) return std::nullopt;
  const auto information = platform::PropertyList::parse(rehearsal::readFile(file));
  const auto* version = information ? (*information)["CFBundleVersion"] : nullptr;
  if (version == nullptr || version->string() == nullptr) return std::nullopt;
  return *version->string();
}

Leftovers Ground::leftovers() const {
  Leftovers left;
  for (const auto& entry : fs::directory_iterator(mac().temporaryDirectory())) {
    const std::string name = entry.path().filename();
    if (name.starts_with("CFNetworkDownload")) ++left.sessionFiles;
    constexpr std::size_t lengthOfUUID = 36;
    if (name.size() != lengthOfUUID) continue;
    ++left.folders;
    if (fs::exists(entry.path() / "Orvik.app")) ++left.unpackedApplications;
  }
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(mac().sysroot() / "Volumes")) ++left.mounts;
  return left;
}

std::vector<std::string> Ground::records() const {
  std::vector<std::string> messages;
  rehearsal::LogFollower log(mac().systemLog());
  while (const auto entry = log.next(std::chrono::steady_clock::now())) messages.push_back(entry->message);
  return messages;
}

std::string Ground::waitForEndOfCheck(rehearsal::ChildProgram& agent, std::chrono::seconds limit) const {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  rehearsal::LogFollower log(mac().systemLog());
  while (std::chrono::steady_clock::now() < deadline) {
    const auto entry = log.next(std::chrono::steady_clock::now() + 100ms);
    if (!entry && !agent.isRunning()) return "";
    if (!entry || entry->processIdentifier != agent.processIdentifier() || !endsCheck(entry->message)) continue;
    // The check's thread may still be removing what it unpacked.
    while (hasTask(agent.processIdentifier()) && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(glance);
    }
    return entry->message;
  }
  return "";
}

}  // namespace campaign
