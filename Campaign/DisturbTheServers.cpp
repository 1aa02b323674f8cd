#include "Campaign/Families.h"
#include "Campaign/FaultyServer.h"
#include "Campaign/Ground.h"

#include <algorithm>
#include <array>
#include <csignal>

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
  Fault fault;  // none refuses the connection
  seconds listCut = 60s;
  seconds imageCut = 60s;  // when it is cut short, if the agent is still at it then
  enum class Certificate { right, untrusted, expired, wrongName } certificate = Certificate::right;
};

Fault resetAt(std::size_t tenths) {
  return [tenths](Connection& connection, const std::string& body) {
    connection.send(head(200, body.size()));
    connection.send(std::string_view(body).substr(0, body.size() * tenths / 10));
    connection.reset();
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
    play(row, target);
  }

 private:
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

  void play(const Row& row, Target target) {
    const seconds cut = target == Target::list ? row.listCut : row.imageCut;
    const auto begin = steady_clock::now();
    rehearsal::ChildProgram agent = ground_.startAgent();
    const std::string end = ground_.waitForEndOfCheck(agent, cut);
    const double held = duration<double>(steady_clock::now() - begin).count();
    const std::string process = fmt::format("/proc/{}", agent.processIdentifier());
    const auto count = [&](const char* what) {
      return std::distance(fs::directory_iterator(process + "/" + what), fs::directory_iterator());
    };
    const auto threads = count("task");
    const auto descriptors = count("fd");
    const Leftovers left = ground_.leftovers();
    const Application application = ground_.application();
    const std::string records = errorsAmong(ground_.records());
    agent.send(SIGTERM);
    const auto status = agent.wait(10s);

    const std::string what = fmt::format("{}, {}", row.name, targetNames.at(static_cast<std::size_t>(target)));
    const Application expected = target == Target::collector ? Application::updated : Application::old;
    if (status != 0) campaign_.report.broken(what + ": the agent did not quit in order");
    if (application != expected)
      campaign_.report.broken(fmt::format("{}: the application is {}", what, name(application)));
    if (left.mounts > 0) campaign_.report.broken(what + ": still mounted");
    if (end.empty() && cut == 60s) campaign_.report.broken(what + ": held the check for a minute");
    campaign_.report.row(
        {targetNames.at(static_cast<std::size_t>(target)), row.name, records,
         end.empty() ? fmt::format("cut short after {} s", cut.count()) : fmt::format("{:.1f} s", held), left.text(),
         std::to_string(threads), std::to_string(descriptors)});
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
  std::vector<Row> all{{.name = "refuses"}};
  for (std::size_t tenths = 0; tenths < 10; tenths += isFull ? 1 : 5) {
    all.push_back({.name = fmt::format("resets at {}/10 of the body", tenths), .fault = resetAt(tenths)});
  }
  const std::vector<Row> rest{
      {.name = "stalls halfway", .fault = stall, .listCut = isFull ? 90s : cut, .imageCut = cut},
      {.name = "drips a byte every 0.2 s", .fault = drip, .listCut = cut, .imageCut = cut},
      {.name = "closes a byte early", .fault = closeShort},
      {.name = "declares half the length", .fault = declareTooLittle},
      {.name = "sends without end", .fault = sendWithoutEnd, .imageCut = isFull ? 5s : 1s},
      {.name = "redirects to itself", .fault = answer(302, "", "Location: /again\r\n")},
      {.name = "redirects to http:", .fault = answer(302, "", "Location: http://images.corvane.example/\r\n")},
      {.name = "is untrusted", .fault = stall, .certificate = Row::Certificate::untrusted},
      {.name = "has an expired certificate", .fault = stall, .certificate = Row::Certificate::expired},
      {.name = "has a certificate of another name", .fault = stall, .certificate = Row::Certificate::wrongName},
      {.name = "404 with a body", .fault = answer(404, "gone")},
      {.name = "404 without", .fault = answer(404, "")},
      {.name = "500 with a body", .fault = answer(500, "<html>")},
      {.name = "500 without", .fault = answer(500, "")},
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
      "after three times 300 s, a post after 30 s; a drip ends after seven days, or a post after 30 s.");
  campaign.report.row({"server", "fault", "records", "time", "left behind", "threads", "descriptors"});
  ServerCampaign family(campaign);
  for (const Target target : {Target::list, Target::image, Target::collector}) {
    for (const Row& row : rows(campaign.extent)) family.run(row, target);
  }
}

}  // namespace campaign
