#include "Campaign/Families.h"
#include "Campaign/FaultyServer.h"
#include "Campaign/Ground.h"
#include "Logging/EmergencyUpdateServiceNimbetLogSender.h"
#include "Posix/CurlURLSession.h"
#include "Posix/DistributedNotificationPoster.h"
#include "Posix/SocketAddress.h"
#include "Posix/ThreadSerialQueue.h"

#include <atomic>
#include <csignal>
#include <fstream>
#include <latch>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace campaign {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::duration;
using std::chrono::steady_clock;

constexpr std::size_t listLimit = std::size_t{64} << 20U;

double secondsSince(steady_clock::time_point begin) {
  return duration<double>(steady_clock::now() - begin).count();
}

/// A number of kilobytes from a process's status, as megabytes.
double megabytes(pid_t process, const std::string& field) {
  std::ifstream status(fmt::format("/proc/{}/status", process));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field + ":")) return std::stod(line.substr(field.size() + 1)) / 1024;
  }
  return 0;
}

/// So many records from eight threads, to a collector that takes every request and answers none.
void logWhileTheCollectorHangs(const Ground& ground, Report& report, std::size_t records) {
  constexpr std::size_t threads = 8;
  std::atomic<int> requests = 0;
  const auto credentials = ground.authority().issue(logHost);
  const FaultyServer server(credentials, [&](Connection& connection) {
    ++requests;
    connection.waitForClose();
  });
  rehearsal::writeFile(ground.mac().sysroot() / "etc/connect-to",
                       fmt::format("{}:443:127.0.0.1:{}\n", logHost, server.port()));
  platform::posix::ThreadSerialQueues queues;
  platform::posix::CurlURLSessions sessions({.sysroot = platform::posix::Sysroot(ground.mac().sysroot().string()),
                                             .home = ground.mac().home().string(),
                                             .temporaryDirectory = ground.mac().temporaryDirectory().string()});
  const auto sender = std::make_shared<corvane::EmergencyUpdateServiceNimbetLogSender>(
      queues.serialQueue("Overload"), sessions.session({}),
      corvane::EmergencyUpdateServiceNimbetLogSender::Configuration{
          .baseURL = *platform::URL::parse(fmt::format("https://{}/logv2", logHost)),
          .environment = corvane::LogEnvironment::prod,
          .minLogLevel = corvane::LogLevel::info});
  const double before = megabytes(getpid(), "VmRSS");
  std::latch start(threads);
  std::atomic<std::int64_t> longest = 0;
  const auto begin = steady_clock::now();
  {
    std::vector<std::jthread> loggers;
    loggers.reserve(threads);
    for (std::size_t i = 0; i < threads; ++i) {
      loggers.emplace_back([&] {
        start.arrive_and_wait();
        for (std::size_t record = 0; record < records / threads; ++record) {
          const auto sent = steady_clock::now();
          sender->send(
              {"Overload", corvane::LogLevel::info, {"record {} of many", record}, {}, "Campaign/Overload", 1, "f()"});
          const std::int64_t took = (steady_clock::now() - sent) / 1us;
          std::int64_t known = longest;
          while (took > known && !longest.compare_exchange_weak(known, took)) {
          }
        }
      });
    }
  }
  const double took = secondsSince(begin);
  constexpr int most = corvane::EmergencyUpdateServiceNimbetLogSender::maximumUnderWay;
  for (const auto deadline = steady_clock::now() + 10s; requests < most && steady_clock::now() < deadline;) {
    std::this_thread::sleep_for(10ms);
  }
  std::this_thread::sleep_for(500ms);  // for one that is too many
  const double grown = megabytes(getpid(), "VmRSS") - before;
  if (requests != most) report.broken(fmt::format("{} posts under way instead of {}", requests.load(), most));
  report.row({fmt::format("{} records from eight threads while the collector hangs", records),
              fmt::format("{:.2f} s for all ({:.1f} µs each), the longest call {} ms; {} posts under way", took,
                          took * 1e6 * threads / static_cast<double>(records), longest / 1000, requests.load()),
              fmt::format("{:.0f} MB grown", grown)});
}

/// Sends notifications to an agent, as those who post them do.
class Notifier {
 public:
  Notifier(const Ground& ground, const rehearsal::ChildProgram& agent)
      : log_(ground.mac().systemLog()), agent_(agent.processIdentifier()) {
    const fs::path folder = platform::posix::distributedNotificationFolder(ground.mac().temporaryDirectory().string());
    there_ = platform::posix::FileDescriptor(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const auto& entry : fs::directory_iterator(folder)) {
      address_ = platform::posix::addressInFolder(there_, entry.path().filename());
    }
    if (!address_) throw rehearsal::Failure("the agent does not listen to notifications");
    // An agent that no longer takes any must not hold the campaign.
    const timeval patience{.tv_sec = 20, .tv_usec = 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  }

  /// How many of so many were taken; with MSG_DONTWAIT those that there is no room for are lost.
  int send(int count, int flags) {
    constexpr std::string_view datagram = R"({"name":"com.corvane.ProjectOrvik.applicationWillTerminate"})";
    int taken = 0;
    for (int i = 0; i < count; ++i) {
      const bool isTaken = sendto(socket_.get(), datagram.data(), datagram.size(), flags | MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&*address_), sizeof *address_) > 0;
      taken += isTaken ? 1 : 0;
      if (!isTaken && (flags & MSG_DONTWAIT) == 0) break;
    }
    return taken;
  }

  /// Records that say that a notification came, once there are so many or time is up.
  int awaitRecords(int count) {
    int records = 0;
    const auto deadline = steady_clock::now() + 60s;
    while (records < count) {
      const auto entry = log_.next(deadline);
      if (!entry) break;
      if (entry->processIdentifier == agent_ && entry->category == "UpdateWatchdog") ++records;
    }
    return records;
  }

 private:
  rehearsal::LogFollower log_;
  pid_t agent_;
  platform::posix::FileDescriptor there_;
  platform::posix::FileDescriptor socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  std::optional<sockaddr_un> address_;
};

/// Each notification that is taken is to be told of, whether its sender waits for room or not.
void flood(Ground& ground, Report& report, int notifications) {
  ground.reset();
  ground.setList(R"({"version":"1","updates":[]})");
  rehearsal::ChildProgram agent = ground.startAgent();
  ground.waitForEndOfCheck(agent, 30s);
  Notifier notifier(ground, agent);
  for (const int flags : {0, int{MSG_DONTWAIT}}) {
    const auto begin = steady_clock::now();
    const int taken = notifier.send(notifications, flags);
    const double took = secondsSince(begin);
    const int records = notifier.awaitRecords(taken);
    if (records != taken) report.broken(fmt::format("flood: {} records of {} notifications", records, taken));
    if (flags == 0 && taken != notifications) report.broken(fmt::format("flood: only {} were taken", taken));
    report.row({fmt::format("{} notifications, {}", notifications,
                            flags == 0 ? "as fast as they are taken" : "whether there is room or not"),
                fmt::format("{:.2f} s, {:.0f} a second; {} lost, {} records", took, notifications / took,
                            notifications - taken, records),
                fmt::format("{:.0f} MB at most", megabytes(agent.processIdentifier(), "VmHWM"))});
  }
  agent.send(SIGTERM);
  if (agent.wait(30s) != 0) report.broken("flood: the agent did not quit in order");
}

/// A list of so many bytes: its end, how long the check took, and how much memory.
void readList(Ground& ground, Report& report, const std::string& name, const std::string& list,
              const std::string& expected) {
  ground.reset();
  ground.setList(list);
  const auto begin = steady_clock::now();
  rehearsal::ChildProgram agent = ground.startAgent();
  const std::string end = ground.waitForEndOfCheck(agent, 60s);
  const double took = secondsSince(begin);
  const double peak = megabytes(agent.processIdentifier(), "VmHWM");
  agent.send(SIGTERM);
  if (agent.wait(10s) != 0 || end != expected) report.broken(fmt::format("{}: “{}”", name, end));
  report.row({name, fmt::format("{} after {:.1f} s", end, took), fmt::format("{:.0f} MB at most", peak)});
}

std::string listOfManyEntries(std::size_t bytes) {
  const std::string entry = R"({"date":"","appVersions":["9"],"actions":[{"dryRun":{}}]},)";
  std::string list = R"({"version":"1","updates":[)";
  while (list.size() + entry.size() + 2 <= bytes) list += entry;
  list.back() = ']';
  return list + "}";
}

}  // namespace

void overload(Campaign& campaign) {
  const bool isFull = campaign.extent == Extent::full;
  campaign.report.heading("Too much of everything", "What is more than anybody would send.");
  campaign.report.row({"load", "outcome", "memory"});
  Ground ground(campaign.prefix);
  Report& report = campaign.report;
  logWhileTheCollectorHangs(ground, report, isFull ? 1'000'000 : 10'000);
  flood(ground, report, isFull ? 100'000 : 1'000);
  ground.reset();
  const std::string list = ground.list();
  readList(ground, report, "a list of 64 MiB, all but the first entry blanks",
           list + std::string(listLimit - list.size(), ' '), "Cleaning up");
  if (isFull) {
    readList(ground, report, "a byte more", list + std::string(listLimit - list.size() + 1, ' '),
             "Check aborted, could not download");
    readList(ground, report, "a list of 64 MiB of entries, more than a million values", listOfManyEntries(listLimit),
             "Check aborted, could not parse");
  }
  readList(ground, report, "a list of 64 MiB of opening brackets", std::string(listLimit, '['),
           "Check aborted, could not parse");
  ground.reset();
  const std::string install =
      R"({{"version":"1","updates":[{{"date":"","appVersions":["1"],"actions":[{{"install":{{"url":"file://{}"}}}}]}}]}})";
  const fs::path file = ground.mac().home() / "image.dmg";
  fs::copy_file(ground.image(), file);
  readList(ground, report, "an image that is a file", fmt::format(fmt::runtime(install), file.string()), "Cleaning up");
  fs::remove(file);
  mkfifo(file.c_str(), 0666);
  readList(ground, report, "an image that is a fifo", fmt::format(fmt::runtime(install), file.string()),
           "Installer stopped, download failed");
}

}  // namespace campaign
