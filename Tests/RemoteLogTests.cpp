#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Logging/EmergencyUpdateServiceNimbetLogSender.h"
#include "Posix/CurlURLSession.h"
#include "Posix/ThreadSerialQueue.h"
#include "Rehearsal/HTTPSServer.h"
#include "Rehearsal/StandInMac.h"
#include "Support/Fakes.h"
#include "Support/Machine.h"

#include <algorithm>
#include <condition_variable>
#include <limits>

#include <fmt/format.h>
#include <gmock/gmock.h>

using namespace corvane;
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using Sender = EmergencyUpdateServiceNimbetLogSender;
using testing::ElementsAre;

namespace values {

struct Number {
  double value;
};
Json encode(const Number& number) {
  return {{"list", {1, number.value}}};
}

}  // namespace values

namespace {

constexpr const char* host = "log.example";

Sender::Configuration configuration(const std::string& url) {
  return {.baseURL = *platform::URL::parse(url),
          .origin = "https://www.example",
          .application = "macExtension",
          .environment = LogEnvironment::prod,
          .version = "7.1",
          .osVersion = "14.5.0",
          .osArch = "arm64",
          .minLogLevel = LogLevel::info};
}

void send(EmergencyUpdateServiceLogSender& sender, const EmergencyUpdateServiceLogMessage& message,
          LogLevel level = LogLevel::info, EmergencyUpdateServiceLogExtra extra = {},
          std::string_view file = "Installer/Deep/File") {
  sender.send({"Name", level, message, extra, file, 12, "f(_:)"});
}

/// Requests as the sender makes them, in its order.
class LogRequests : public testing::Test {
 protected:
  fakes::ImmediateQueues queues;
  fakes::ScriptedURLSessions network;
  std::shared_ptr<Sender> sender =
      std::make_shared<Sender>(queues.serialQueue(""), network.session({}), configuration("https://log.example/logv2"));

  Json last() const { return Json::parse(network.posted.back().httpBody); }
};

TEST_F(LogRequests, SayWhoWhereAndWhat) {
  send(*sender, {"at {}", hidden("/Users/x")}, LogLevel::warn, std::vector<std::string>{"a/b"});
  sender->setAgentID("ID");
  send(*sender, {"later"}, LogLevel::error, {}, "File");
  const std::string start = R"j({"file":"File","line":12,"function":"f(_:)","application":"macExtension",)j"
                            R"j("env":"prod","version":"7.1","osVersion":"14.5.0","osArch":"arm64","logger":"Name",)j";
  ASSERT_EQ(network.posted.size(), 2U);
  EXPECT_EQ(network.posted[0].httpBody, start + R"("level":"WARN","message":"at <private>","extra":["a\/b"]})");
  EXPECT_EQ(network.posted[1].httpBody, start + R"("level":"ERROR","agentID":"ID","message":"later"})");
  EXPECT_EQ(network.posted[1].timeoutInterval, 30);
}

TEST_F(LogRequests, AreMadeFromInfoUpUnlessTheExtraValueHasNoJSON) {
  for (const auto level : {LogLevel::trace, LogLevel::debug, LogLevel::info, LogLevel::warn, LogLevel::error}) {
    send(*sender, {"text"}, level);
  }
  EXPECT_EQ(network.posted.size(), 3U);
  send(*sender, {"text"}, LogLevel::info, values::Number{0.5});
  EXPECT_EQ(last()["extra"], Json::parse(R"({"list":[1,0.5]})"));
  send(*sender, {"text"}, LogLevel::info, values::Number{std::numeric_limits<double>::infinity()});
  EXPECT_EQ(network.posted.size(), 4U);
}

TEST_F(LogRequests, KeepTheTextThroughTheEncoding) {
  const std::vector<std::pair<std::string, const char*>> rows = {
      {"a/b\\/c", R"("a\/b\\\/c")"},
      {"\"\\", R"("\"\\")"},
      {"\b\f\n\r\t", R"("\b\f\n\r\t")"},
      {std::string("\0\x1F\x7F", 3), "\"\\u0000\\u001f\x7F\""},
      {"ä\u2028😀", "\"ä\u2028😀\""},
      {"no UTF-8: \xFF/\xC3", "\"no UTF-8: \uFFFD\\/\uFFFD\""},
      {"a surrogate: \xED\xA0\x80.", "\"a surrogate: \uFFFD\uFFFD\uFFFD.\""},
  };
  for (const auto& [text, encoded] : rows) {
    send(*sender, {"{}", text});
    EXPECT_THAT(network.posted.back().httpBody, testing::HasSubstr(fmt::format(R"("message":{}}})", encoded)));
  }
}

TEST_F(LogRequests, WaitAsRecordsWhileAHandfulIsUnanswered) {
  network.answersPosts = false;
  for (int i = 0; i < 10; ++i) send(*sender, {"{}", i});
  sender->setAgentID("ID");
  send(*sender, {"10"});
  EXPECT_EQ(network.posted.size(), 6U);
  while (network.unanswered.size() > 1) {  // the first hangs on and holds back no other
    auto completion = std::move(network.unanswered.back());
    network.unanswered.pop_back();
    completion(std::nullopt, std::nullopt, platform::NSError(platform::NSURLErrorDomain, -1001));
  }
  std::vector<std::string> messages;
  for (const auto& request : network.posted) messages.push_back(Json::parse(request.httpBody)["message"]);
  EXPECT_THAT(messages, ElementsAre("0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10"));
  EXPECT_TRUE(last().contains("agentID"));
}

/// The collector on loopback, with the requests it has got so far.
class Collector {
 public:
  Collector() {
    mac.trust(authority_.certificatePEM());
    mac.connect(host, server_.port());
  }

  /// Waits for so many, at most a minute.
  std::vector<rehearsal::HTTPRequest> got(std::size_t count) {
    std::unique_lock lock(mutex_);
    change_.wait_for(lock, 60s, [&] { return got_.size() >= count; });
    return got_;
  }
  std::shared_ptr<Sender> sender() const {
    return std::make_shared<Sender>(platform::posix::ThreadSerialQueues().serialQueue("test.Sender"),
                                    platform::posix::CurlURLSessions(fakes::machine(mac)).session({}),
                                    configuration(fmt::format("https://{}/logv2", host)));
  }

  const rehearsal::StandInMac mac;

 private:
  rehearsal::HTTPResponse answer(const rehearsal::HTTPRequest& request) {
    const std::lock_guard lock(mutex_);
    got_.push_back(request);
    change_.notify_all();
    return {.status = 500, .body = "{}"};
  }

  const rehearsal::CertificateAuthority authority_;
  std::mutex mutex_;
  std::condition_variable change_;
  std::vector<rehearsal::HTTPRequest> got_;
  const rehearsal::HTTPSServer server_{authority_.issue(host),
                                       [this](const rehearsal::HTTPRequest& request) { return answer(request); }};
};

TEST(RemoteLog, PostsEachRecordOnceOverTLSWhateverTheAnswer) {
  Collector collector;
  const auto sender = collector.sender();
  constexpr int count = 40;
  for (int i = 0; i < count; ++i) {
    if (i == 10) sender->setAgentID("ID");
    send(*sender, {"{}", i});
  }
  std::vector<int> numbers;
  for (const auto& request : collector.got(count)) {
    EXPECT_EQ(request.method + " " + request.path + " " + request.host, fmt::format("POST /logv2 {}", host));
    EXPECT_EQ(request.headers.at("origin"), "https://www.example");
    EXPECT_EQ(request.headers.at("content-type"), "application/json;charset=UTF-8");
    EXPECT_FALSE(request.headers.contains("user-agent"));
    const Json body = Json::parse(request.body);
    numbers.push_back(std::stoi(body["message"].get<std::string>()));
    EXPECT_EQ(body.contains("agentID"), numbers.back() >= 10) << request.body;
  }
  std::ranges::sort(numbers);
  ASSERT_EQ(numbers.size(), 40U);
  for (int i = 0; i < count; ++i) EXPECT_EQ(numbers[static_cast<std::size_t>(i)], i);
}

}  // namespace
