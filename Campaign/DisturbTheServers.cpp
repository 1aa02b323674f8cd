#include "Campaign/Families.h"
#include "Campaign/FaultyServer.h"
#include "Campaign/Ground.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <optional>
#include <thread>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace campaign {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::duration;
using std::chrono::seconds;
using std::chrono::steady_clock;

enum class Target { list, image, collector };
constexpr std::array hosts{listHost, imageHost, logHost};
constexpr std::array targetNames{"list", "image", "collector"};

std::string head(int status, std::size_t length, const std::string& more = "") {
  return fmt::format("HTTP/1.1 {} X\r\nContent-Length: {}\r\n{}\r\n", status, length, more);
}

/// What a server does to each request, given the right body.
using Fault = std::function<void(Connection&, const std::string& body)>;

struct Row {
  std::string name;
  Fault fault;             // none refuses the connection
  bool passes = false;     // what comes is taken for the body, and what is wrong with it shows later
  int imageError = -1005;  // of the session, when the image does not come
  std::optional<seconds> listCut;
  std::optional<seconds> imageCut;  // when a check is cut short that has to be at it still
  enum class Certificate { right, untrusted, expired, wrongName } certificate = Certificate::right;
};

Fault resetAt(std::size_t tenths) {
  return [tenths](Connection& connection, const std::string& body) {
    connection.send(head(200, body.size()));
    connection.send(std::string_view(body).substr(0, body.size() * tenths / 10));
    connection.resetInTheEnd();
  };
}

Fault answer(int status, const std::string& body, const std::string& more = "") {
  return [=](Connection& connection, const std::string& /*right*/) {
    do {  // a client that is led elsewhere on the same host may come by the same connection
      connection.send(head(status, body.size(), more) + body);
    } while (!connection.receive().empty());
  };
}

void stall(Connection& connection, const std::string& body) {
  connection.send(head(200, body.size()) + body.substr(0, body.size() / 2));
  connection.waitForClose();
}

void drip(Connection& connection, const std::string& body) {
  connection.send(head(200, body.size()));
  for (const char& byte : body) {
    if (!connection.send({&byte, 1})) return;
    std::this_thread::sleep_for(200ms);
  }
}

void closeShort(Connection& connection, const std::string& body) {
  connection.send(head(200, body.size() + 1) + body);
}

void declareTooLittle(Connection& connection, const std::string& body) {
  connection.send(head(200, body.size() / 2) + body);
  connection.waitForClose();
}

void sendWithoutEnd(Connection& connection, const std::string& /*body*/) {
  connection.send("HTTP/1.1 200 X\r\nTransfer-Encoding: chunked\r\n\r\n");
  const std::string chunk = fmt::format("40000\r\n{}\r\n", std::string(0x40000, ' '));
  while (connection.send(chunk)) {
  }
}

class ServerCampaign {
 public:
  explicit ServerCampaign(Campaign& campaign) : campaign_(campaign), ground_(campaign.prefix) {}

  void run(const Row& row, Target target) {
    const std::string host = hosts.at(static_cast<std::size_t>(target));
    const rehearsal::Credentials credentials = credentialsFor(host, row.certificate);
    ground_.reset();
    const std::string body = rightBody(target);
    const FaultyServer server(credentials, [&](Connection& connection) { row.fault(connection, body); });
    ground_.route(host, row.fault ? server.port() : 0);
    const LoopbackListener plain;  // where nobody is to come by
    for (const char* each : hosts) ground_.route(each, plain.port(), 80);
    const std::string what = fmt::format("{}, {}", row.name, targetNames.at(static_cast<std::size_t>(target)));
    play(row, target, what, server);
    judgeRequests(row, what, server);
    if (plain.hasCaller()) campaign_.report.broken(what + ": it was asked without TLS");
  }

 private:
  struct End {
    std::string record;   // that ends the check; none for one that is cut short
    std::string failure;  // a record that tells why
  };
  static End endOf(const Row& row, Target target) {
    if (target == Target::collector) return {"Cleaning up", "Installation completed"};
    if (target == Target::list) {
      if (row.listCut) return {};
      return {row.passes ? "Check aborted, could not parse" : "Check aborted, could not download", ""};
    }
    if (row.imageCut) return {};
    if (row.passes) {
      return {"Installer stopped, initial verification failed",
              "App verification failed, status=-67062, error={Domain=NSOSStatusErrorDomain, Code=-67062} "
              "(InitialVerification)"};
    }
    return {"Installer stopped, download failed",
            fmt::format("App download failed: {{Domain=NSURLErrorDomain, Code={}}}", row.imageError)};
  }

  void judgeRequests(const Row& row, const std::string& what, const FaultyServer& server) {
    if (!row.fault) return;
    const bool isToTrust = row.certificate == Row::Certificate::right;
    const int requests = server.requests();
    if (server.connections() == 0) campaign_.report.broken(what + ": nobody came");
    if (isToTrust && requests == 0) campaign_.report.broken(what + ": it was asked nothing");
    if (!isToTrust && requests > 0) campaign_.report.broken(what + ": it was trusted");
  }

  [[nodiscard]] rehearsal::Credentials credentialsFor(const std::string& host, Row::Certificate certificate) const {
    switch (certificate) {
      case Row::Certificate::untrusted:
        return rehearsal::CertificateAuthority().issue(host);
      case Row::Certificate::expired:
        return ground_.authority().issue(host, -2);
      case Row::Certificate::wrongName:
        return ground_.authority().issue("other.example");
      case Row::Certificate::right:
        break;
    }
    return ground_.authority().issue(host);
  }

  [[nodiscard]] std::string rightBody(Target target) const {
    if (target == Target::image) return rehearsal::readFile(ground_.image());
    const std::string blanks(std::size_t{64} << 10U, ' ');
    return target == Target::list ? blanks + ground_.list() : blanks;
  }

  void play(const Row& row, Target target, const std::string& what, const FaultyServer& server) {
    const End expected = endOf(row, target);
    const auto cut = target == Target::list ? row.listCut : row.imageCut;
    const auto begin = steady_clock::now();
    rehearsal::ChildProgram agent = ground_.startAgent();
    const std::string end = ground_.waitForEndOfCheck(agent, expected.record.empty() ? *cut : 90s);
    const double held = duration<double>(steady_clock::now() - begin).count();
    const std::string process = fmt::format("/proc/{}", agent.processIdentifier());
    const auto count = [&](const char* folder) {
      return std::distance(fs::directory_iterator(process + "/" + folder), fs::directory_iterator());
    };
    const auto threads = count("task");
    const auto descriptors = count("fd");
    const Leftovers left = ground_.leftovers();
    const Application application = ground_.application();
    const auto records = ground_.records();
    if (target == Target::collector && row.fault) awaitPost(server);
    agent.send(SIGTERM);
    const auto status = agent.wait(10s);

    const Application expectedNow = target == Target::collector ? Application::updated : Application::old;
    if (status != 0) campaign_.report.broken(what + ": the agent did not quit in order");
    if (application != expectedNow)
      campaign_.report.broken(fmt::format("{}: the application is {}", what, name(application)));
    if (end != expected.record) campaign_.report.broken(fmt::format("{}: the check ended with “{}”", what, end));
    if (!expected.failure.empty() && std::ranges::find(records, expected.failure) == records.end())
      campaign_.report.broken(fmt::format("{}: no record “{}”", what, expected.failure));
    if (left.mounts > 0) campaign_.report.broken(what + ": still mounted");
    campaign_.report.row({targetNames.at(static_cast<std::size_t>(target)), row.name, errorsAmong(records),
                          end.empty() ? fmt::format("cut short after {:.0f} s", held) : fmt::format("{:.1f} s", held),
                          left.text(), std::to_string(threads), std::to_string(descriptors)});
  }

  /// The remote log is on its way on threads of its own.
  static void awaitPost(const FaultyServer& server) {
    for (int i = 0; i < 1000 && server.connections() == 0; ++i) std::this_thread::sleep_for(10ms);
    std::this_thread::sleep_for(50ms);  // for what it does with the answer
  }

  /// The records that tell of a failure, each once.
  static std::string errorsAmong(const std::vector<std::string>& records) {
    std::vector<std::string> told;
    for (const std::string& record : records) {
      const bool tells = record.contains("ailed") || record.contains("aborted") || record == "Installation completed";
      if (tells && std::ranges::find(told, record) == told.end()) told.push_back(record);
    }
    return fmt::format("{}", fmt::join(told, "<br>"));
  }

  Campaign& campaign_;
  Ground ground_;
};

std::vector<Row> rows(Extent extent) {
  const bool isFull = extent == Extent::full;
  const seconds cut = isFull ? 15s : 2s;
  std::vector<Row> all{{.name = "refuses", .imageError = -1004}};
  for (std::size_t tenths = 0; tenths < 10; tenths += isFull ? 1 : 5) {
    all.push_back({.name = fmt::format("resets at {}/10 of the body", tenths), .fault = resetAt(tenths)});
  }
  using Certificate = Row::Certificate;
  constexpr int distrusted = -1202;
  const std::vector<Row> rest{
      {.name = "stalls halfway",
       .fault = stall,
       .listCut = isFull ? std::nullopt : std::optional(cut),  // it gives up by itself
       .imageCut = cut},
      {.name = "drips a byte every 0.2 s", .fault = drip, .listCut = cut, .imageCut = cut},
      {.name = "closes a byte early", .fault = closeShort},
      {.name = "declares half the length", .fault = declareTooLittle, .passes = true},
      {.name = "sends without end", .fault = sendWithoutEnd, .imageCut = isFull ? 5s : 1s},
      {.name = "redirects to itself", .fault = answer(302, "", "Location: /again\r\n"), .imageError = -1007},
      {.name = "redirects to http:",
       .fault = answer(302, "", fmt::format("Location: http://{}/\r\n", imageHost)),
       .imageError = -1002},
      {.name = "is untrusted", .fault = stall, .imageError = distrusted, .certificate = Certificate::untrusted},
      {.name = "has an expired certificate",
       .fault = stall,
       .imageError = distrusted,
       .certificate = Certificate::expired},
      {.name = "has a certificate of another name",
       .fault = stall,
       .imageError = distrusted,
       .certificate = Certificate::wrongName},
      {.name = "404 with a body", .fault = answer(404, "gone"), .passes = true},
      {.name = "404 without", .fault = answer(404, ""), .passes = true},
      {.name = "500 with a body", .fault = answer(500, "<html>"), .passes = true},
      {.name = "500 without", .fault = answer(500, ""), .passes = true},
  };
  all.insert(all.end(), rest.begin(), rest.end());
  return all;
}

}  // namespace

void disturbTheServers(Campaign& campaign) {
  campaign.report.heading(
      "Servers that misbehave",
      "Each fault with the list's server, the image's and the log collector's. The time is that of the whole check; "
      "threads\n"
      "and descriptors are the agent's when the check has ended, its remote log still at work. A check that waits is "
      "cut\n"
      "short where its limit is too long to wait for: without a byte the list gives up after 60 s (waited for), the "
      "image\n"
      "after three times 300 s, a post after 30 s; a drip ends after seven days, or a post after 30 s. Nobody is to "
      "come "
      "by\n"
      "without TLS, and nothing is to be asked where the certificate is wrong.");
  campaign.report.row({"server", "fault", "records", "time", "left behind", "threads", "descriptors"});
  ServerCampaign family(campaign);
  for (const Target target : {Target::list, Target::image, Target::collector}) {
    for (const Row& row : rows(campaign.extent)) family.run(row, target);
  }
}

}  // namespace campaign
