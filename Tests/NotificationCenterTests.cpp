#include "Posix/DatagramNotificationCenter.h"
#include "Posix/DistributedNotificationPoster.h"
#include "Posix/SocketAddress.h"
#include "Rehearsal/StandInMac.h"

#include <filesystem>

#include <asio/executor_work_guard.hpp>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

using platform::DistributedNotification;
using platform::posix::DatagramNotificationCenter;
using platform::posix::FileDescriptor;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr auto immediately = platform::DistributedNotificationCenter::SuspensionBehavior::deliverImmediately;

class NotificationCenter : public testing::Test {
 protected:
  rehearsal::StandInMac mac;
  // Longer than any socket address.
  const std::string temporaryDirectory = mac.temporaryDirectory() / std::string(150, 't');
  const fs::path folder = platform::posix::distributedNotificationFolder(temporaryDirectory);
  asio::io_context io;
  const asio::executor_work_guard<asio::io_context::executor_type> keepRunning = asio::make_work_guard(io);
  DatagramNotificationCenter center{io, temporaryDirectory};
  std::vector<std::string> heard;

  auto hears(const std::string& who) {
    return [this, who](const DistributedNotification& n) { heard.push_back(who + n.name + n.object.value_or("")); };
  }
  /// One raw datagram to the centre's socket.
  void send(const std::string& bytes) const {
    const FileDescriptor in(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const FileDescriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto to = platform::posix::addressInFolder(in, fs::directory_iterator(folder)->path().filename());
    const auto sent =
        sendto(sender.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&*to), sizeof *to);
    ASSERT_EQ(sent, static_cast<ssize_t>(bytes.size()));
  }
  /// Everything that is in the socket is delivered; returns what was heard.
  std::vector<std::string> delivered() {
    while (io.poll_one() > 0) {
    }
    return std::exchange(heard, {});
  }
};

TEST_F(NotificationCenter, DeliversFromTheLoopByName) {
  center.addObserver(this, "a", immediately, hears("1:"));
  center.addObserver(&center, "b", immediately, hears("2:"));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 1) << "one socket, however many observers";
  center.post("a", "me");
  platform::posix::postDistributedNotification(temporaryDirectory, "b");
  platform::posix::postDistributedNotification(temporaryDirectory, "A");
  platform::posix::postDistributedNotification(temporaryDirectory, "a");
  EXPECT_THAT(heard, IsEmpty()) << "nothing before the loop's turn";
  EXPECT_THAT(delivered(), ElementsAre("1:ame", "2:b", "1:a"));
}

TEST_F(NotificationCenter, AnObserverThatIsGoneHearsNothing) {
  center.addObserver(this, "a", immediately, [this](const auto&) {
    center.removeObserver(&center);
    center.removeObserver(this);
    heard.emplace_back("once");
  });
  center.addObserver(&center, "a", immediately, hears("removed by the first:"));
  center.post("a", {});
  center.post("a", {});
  EXPECT_THAT(delivered(), ElementsAre("once"));
  EXPECT_TRUE(fs::is_empty(folder));
  center.removeObserver(this);
  center.post("a", {});
  center.addObserver(this, "a", immediately, hears("again:"));
  EXPECT_THAT(delivered(), IsEmpty()) << "posted while nobody observed";
  center.post("a", {});
  center.removeObserver(this);  // the datagram is there, its delivery is due
  center.addObserver(this, "a", immediately, hears("anew:"));
  center.post("a", {});
  EXPECT_THAT(delivered(), ElementsAre("anew:a"));
}

TEST_F(NotificationCenter, DropsWhatIsNoNotification) {
  center.addObserver(this, "a", immediately, hears(""));
  const auto padded = [](std::size_t size) {
    const std::string start = R"({"name":"a","object":")";
    return start + std::string(size - start.size() - 2, 'x') + "\"}";
  };
  const std::vector<std::pair<const char*, std::string>> rows = {
      {"empty", ""},
      {"no JSON", "a"},
      {"cut off", R"({"name":"a")"},
      {"an array", R"([{"name":"a"}])"},
      {"no name", R"({"object":"a"})"},
      {"a number as name", R"({"name":1})"},
      {"a number as object", R"({"name":"a","object":1})"},
      {"no UTF-8", "{\"name\":\"a\",\"object\":\"\xFF\"}"},
      {"too long", padded(DatagramNotificationCenter::maximumDatagramBytes + 1)},
      {"deep", std::string(DatagramNotificationCenter::maximumDatagramBytes, '[')},
  };
  for (const auto& [name, datagram] : rows) {
    send(datagram);
    EXPECT_THAT(delivered(), IsEmpty()) << name;
  }
  send(padded(DatagramNotificationCenter::maximumDatagramBytes));
  EXPECT_THAT(delivered(), testing::SizeIs(1));
  send("{\"name\":\"a\",\"userInfo\":{\"k\":[1]}}\n");
  EXPECT_THAT(delivered(), ElementsAre("a"));
}

TEST_F(NotificationCenter, ASocketNobodyListensOnIsRemovedByWhoPosts) {
  center.addObserver(this, "a", immediately, hears(""));
  const FileDescriptor in(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const auto address = platform::posix::addressInFolder(in, "dead.sock");
  ASSERT_EQ(bind(FileDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)).get(),
                 reinterpret_cast<const sockaddr*>(&*address), sizeof *address),
            0);
  center.post("a", {});
  EXPECT_THAT(delivered(), ElementsAre("a"));
  EXPECT_FALSE(fs::exists(folder / "dead.sock"));
}

TEST_F(NotificationCenter, ManyDatagramsLeaveOtherWorkItsTurn) {
  center.addObserver(this, "a", immediately, hears(""));
  center.post("a", {});
  center.post("a", {});
  EXPECT_EQ(io.poll_one(), 1U);
  EXPECT_THAT(heard, ElementsAre("a"));
}

}  // namespace
