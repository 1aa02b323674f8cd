#include "Posix/CurlURLContents.h"
#include "Posix/CurlURLSession.h"
#include "Rehearsal/HTTPSServer.h"
#include "Support/Machine.h"
#include "Support/RawServer.h"

#include <filesystem>
#include <future>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace platform;
using platform::posix::CurlURLContents;
using rehearsal::HTTPRequest;
using rehearsal::HTTPResponse;

namespace {

using Raw = fakes::RawServer;

constexpr const char* host = "list.example";
constexpr const char* cutShort = "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345";

/// Reads of URLs over real TLS from loopback. A request that the test did not announce fails it.
class Network : public testing::Test {
 protected:
  rehearsal::StandInMac mac;
  const rehearsal::CertificateAuthority authority;
  std::map<std::string, HTTPResponse> pages;
  const rehearsal::HTTPSServer https = server(authority.issue(host));

  Network() {
    mac.trust(authority.certificatePEM());
    mac.connect(host, https.port());
  }
  HTTPResponse answer(const HTTPRequest& request) {
    const auto page = pages.find(request.path);
    EXPECT_NE(page, pages.end()) << "unexpected request for " << request.path;
    EXPECT_EQ(request.host, host) << "the Host header must keep the original name";
    return page == pages.end() ? HTTPResponse{.status = 500} : page->second;
  }
  rehearsal::HTTPSServer server(const rehearsal::Credentials& credentials) {
    return {credentials, [this](const HTTPRequest& request) { return answer(request); }};
  }

  /// The body, or "domain code" of the error and of the one under it.
  std::string read(const std::string& url, CurlURLContents::Limits limits = {}) const {
    CurlURLContents contents(posix::Sysroot(mac.sysroot().string()), limits);
    const auto body = contents.contents(*URL::parse(url));
    if (body) return *body;
    std::string text = fmt::format("{} {}", body.error().domain(), body.error().code());
    if (const auto* cause = body.error().underlyingError())
      text += fmt::format(" {} {}", cause->domain(), cause->code());
    return text;
  }
  static std::string failed(int code) { return fmt::format("NSCocoaErrorDomain 256 NSURLErrorDomain {}", code); }
};

TEST_F(Network, WhateverTheStatusABodyIsAResult) {
  pages = {{"/ok", {.body = "list"}},
           {"/404", {.status = 404, .body = "gone"}},
           {"/500", {.status = 500, .body = ""}},
           {"/from", {.status = 302, .body = "moved", .location = "/ok"}},
           {"/nowhere", {.status = 302, .body = "no location"}},
           {"/loop", {.status = 302, .body = "", .location = "/loop"}},
           {"/plain", {.status = 302, .body = "", .location = "http://list.example/ok"}},
           {"/file", {.status = 302, .body = "", .location = "file:///etc/hostname"}},
           {"/large", {.body = std::string(1001, 'x')}}};
  EXPECT_EQ(read("https://list.example/ok"), "list");
  EXPECT_EQ(read("https://list.example/404"), "gone");
  EXPECT_EQ(read("https://list.example/500"), "");
  EXPECT_EQ(read("https://list.example/from"), "list");
  EXPECT_EQ(read("https://list.example/nowhere"), "no location");
  EXPECT_EQ(read("https://list.example/loop"), failed(-1007));
  EXPECT_EQ(read("https://list.example/plain"), failed(-1002));
  EXPECT_EQ(read("https://list.example/file"), failed(-1002));
  EXPECT_EQ(read("https://list.example/large", {.bytes = 1000}), "NSCocoaErrorDomain 263");
  EXPECT_EQ(read("https://list.example/large", {.bytes = 1001}).size(), 1001U);
}

TEST_F(Network, FollowsTwentyRedirectsAndNoMore) {
  for (int i = 1; i <= 21; ++i)
    pages[fmt::format("/{}", i)] = {.status = 302, .body = "", .location = fmt::format("/{}", i - 1)};
  pages["/0"] = {.body = "arrived"};
  EXPECT_EQ(read("https://list.example/20"), "arrived");
  EXPECT_EQ(read("https://list.example/21"), failed(-1007));
}

TEST_F(Network, OnlyTrustedCertificatesOfTheVeryHostCount) {
  const rehearsal::CertificateAuthority other;
  for (const auto& [name, credentials] :
       {std::pair("another root", other.issue(host)), std::pair("another name", authority.issue("other.example")),
        std::pair("expired", authority.issue(host, -2))}) {
    const auto stranger = server(credentials);
    rehearsal::writeFile(mac.sysroot() / "etc/connect-to",
                         fmt::format("# a comment\n\n  {}:443:127.0.0.1:{}  \r\nnonsense\n", host, stranger.port()));
    EXPECT_EQ(read("https://list.example/ok"), failed(-1202)) << name;
  }
}

TEST_F(Network, FailsWithThePlatformsCodes) {
  const Raw reset([](int connection) {
    Raw::answer(connection, "");  // once the request is there
    const linger now{.l_onoff = 1, .l_linger = 0};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  });
  const Raw silent(Raw::waitForClose);
  const Raw stalled([](int connection) {
    Raw::answer(connection, cutShort);
    Raw::waitForClose(connection);
  });
  const Raw shortBody(Raw::answering(cutShort));
  const Raw noServer(Raw::answering("SSH-2.0-x\r\n"));
  constexpr CurlURLContents::Limits oneSecond{.idleSeconds = 1};
  EXPECT_EQ(read(fmt::format("http://127.0.0.1:{}/", Raw::refusingPort())), failed(-1004));
  EXPECT_EQ(read(silent.url(), oneSecond), failed(-1001));
  EXPECT_EQ(read(stalled.url(), oneSecond), failed(-1001));
  EXPECT_EQ(read(shortBody.url()), failed(-1005));
  EXPECT_EQ(read(reset.url()), failed(-1005));
  EXPECT_EQ(read("http://no-such-host.invalid/"), failed(-1003));
  EXPECT_EQ(read("gopher://127.0.0.1/"), failed(-1002));
  EXPECT_EQ(read("relative"), failed(-1002)) << "a reference without a scheme";
  mac.connect("127.0.0.1", 1);
  EXPECT_EQ(read(fmt::format("https://127.0.0.1:{}/", noServer.port())), failed(-1200));
}

TEST_F(Network, ReadsFilesOfThisMac) {
  rehearsal::writeFile(mac.sysroot() / "Library/list.json", "from a file");
  EXPECT_EQ(read("file:///Library/list.json"), "from a file");
  EXPECT_EQ(read("file:///Library/none"), "NSCocoaErrorDomain 260 NSPOSIXErrorDomain 2");
  EXPECT_EQ(read("file:///Library"), "NSCocoaErrorDomain 256 NSPOSIXErrorDomain 21");
}

/// What a download task handed to its completion.
struct Downloaded {
  std::string contents;  // of the file, read inside the completion; "(none)" without one
  std::string path;
  unsigned mode = 0;
  std::int64_t status = -1;
  std::string error;
};

Downloaded download(const rehearsal::StandInMac& mac, const std::string& url,
                    const URLSessionConfiguration& with = {}) {
  posix::CurlURLSessions sessions(fakes::machine(mac));
  std::promise<Downloaded> promise;
  const auto task = sessions.session(with)->downloadTask(
      *URL::parse(url), [&](const auto& location, const auto& response, const auto& error) {
        Downloaded result{.contents = "(none)"};
        if (location) {
          struct stat status{};
          stat(location->path().c_str(), &status);
          result = {.contents = rehearsal::readFile(location->path()),
                    .path = location->path(),
                    .mode = status.st_mode & 0777U};
        }
        if (response) result.status = response->statusCode;
        if (error) result.error = fmt::format("{} {}", error->domain(), error->code());
        promise.set_value(result);
      });
  EXPECT_TRUE(std::filesystem::is_empty(mac.temporaryDirectory())) << "a task starts suspended";
  task->resume();
  Downloaded result = promise.get_future().get();
  // The completion has returned or is about to; then the session's file is gone.
  while (!std::filesystem::is_empty(mac.temporaryDirectory())) std::this_thread::yield();
  return result;
}

TEST_F(Network, DownloadsIntoAFileOfTheSessions) {
  pages = {{"/image", {.body = std::string(20'000'000, 'i')}},
           {"/404", {.status = 404, .body = "gone"}},
           {"/empty", {.body = ""}}};
  const Downloaded image = download(mac, "https://list.example/image");
  EXPECT_EQ(image.contents, std::string(20'000'000, 'i'));
  EXPECT_THAT(image.path,
              testing::MatchesRegex(mac.temporaryDirectory().string() + "/CFNetworkDownload_[A-Za-z0-9]{6}\\.tmp"));
  EXPECT_EQ(image.mode, 0600U);
  EXPECT_EQ(image.status, 200);
  const Downloaded page = download(mac, "https://list.example/404");
  EXPECT_EQ(page.contents + page.error, "gone");
  EXPECT_EQ(page.status, 404);
  EXPECT_EQ(download(mac, "https://list.example/empty").contents, "");
  rehearsal::writeFile(mac.sysroot() / "Library/a.dmg", "from a file");
  EXPECT_EQ(download(mac, "file:///Library/a.dmg").contents, "from a file");
}

TEST_F(Network, FailedDownloadsHaveAnErrorAndNoFile) {
  mac.trust(rehearsal::CertificateAuthority().certificatePEM());
  const Raw silent(Raw::waitForClose);
  const Raw shortBody(Raw::answering(cutShort));
  const Raw endless(Raw::answering("HTTP/1.1 200 OK\r\nContent-Length: 8589934593\r\n\r\n12345"));
  const URLSessionConfiguration waiting{.timeoutIntervalForRequest = 1, .waitsForConnectivity = true};
  for (const auto& [from, code] :
       {std::pair(std::string("https://list.example/image"), -1202),
        std::pair(fmt::format("http://127.0.0.1:{}/", Raw::refusingPort()), -1004), std::pair(silent.url(), -1001),
        std::pair(shortBody.url(), -1005), std::pair(endless.url(), -1103),
        std::pair(std::string("gopher://127.0.0.1/"), -1002), std::pair(std::string("relative.dmg"), -1002),
        std::pair(std::string("file:///Library/none"), -1100), std::pair(std::string("file:///Library"), -1100),
        std::pair(std::string("file:///Volumes"), -1101)}) {
    const Downloaded result = download(mac, from, waiting);
    EXPECT_EQ(result.contents + " " + result.error, fmt::format("(none) NSURLErrorDomain {}", code)) << from;
  }
}

}  // namespace
