#include "Posix/CurlURLContents.h"
#include "Rehearsal/HTTPSServer.h"
#include "Rehearsal/StandInMac.h"
#include "Support/RawServer.h"

#include <mutex>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace platform;
using platform::posix::CurlURLContents;
using rehearsal::HTTPRequest;
using rehearsal::HTTPResponse;

namespace {

constexpr const char* host = "list.example";

/// Reads of URLs over real TLS from loopback. A request that the test did not announce fails it.
class Network : public testing::Test {
 protected:
  rehearsal::StandInMac mac;
  const rehearsal::CertificateAuthority authority;
  std::map<std::string, HTTPResponse> pages;

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
  const auto https = server(authority.issue(host));
  mac.trust(authority.certificatePEM());
  mac.connect(host, https.port());
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
  const auto https = server(authority.issue(host));
  mac.trust(authority.certificatePEM());
  mac.connect(host, https.port());
  for (int i = 1; i <= 21; ++i)
    pages[fmt::format("/{}", i)] = {.status = 302, .body = "", .location = fmt::format("/{}", i - 1)};
  pages["/0"] = {.body = "arrived"};
  EXPECT_EQ(read("https://list.example/20"), "arrived");
  EXPECT_EQ(read("https://list.example/21"), failed(-1007));
}

TEST_F(Network, OnlyTrustedCertificatesOfTheVeryHostCount) {
  const rehearsal::CertificateAuthority other;
  mac.trust(authority.certificatePEM());
  for (const auto& [name, credentials] :
       {std::pair("another root", other.issue(host)), std::pair("another name", authority.issue("other.example")),
        std::pair("expired", authority.issue(host, -2))}) {
    const auto https = server(credentials);
    const rehearsal::StandInMac fresh;
    rehearsal::writeFile(mac.sysroot() / "etc/connect-to",
                         fmt::format("# a comment\n\n  {}:443:127.0.0.1:{}  \r\nnonsense\n", host, https.port()));
    EXPECT_EQ(read("https://list.example/ok"), failed(-1202)) << name;
  }
}

TEST_F(Network, FailsWithThePlatformsCodes) {
  using Raw = fakes::RawServer;
  const Raw reset([](int connection) {
    Raw::answer(connection, "");  // once the request is there
    const linger now{.l_onoff = 1, .l_linger = 0};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  });
  const Raw silent(Raw::waitForClose);
  const Raw stalled([](int connection) {
    Raw::answer(connection, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345");
    Raw::waitForClose(connection);
  });
  const Raw shortBody(
      [](int connection) { Raw::answer(connection, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345"); });
  const Raw noServer([](int connection) { Raw::answer(connection, "SSH-2.0-x\r\n"); });
  const auto url = [](const Raw& server) { return fmt::format("http://127.0.0.1:{}/", server.port()); };
  std::uint16_t unused = 0;
  {
    unused = Raw([](int) {}).port();
  }
  constexpr CurlURLContents::Limits oneSecond{.idleSeconds = 1};
  EXPECT_EQ(read(fmt::format("http://127.0.0.1:{}/", unused)), failed(-1004));
  EXPECT_EQ(read(url(silent), oneSecond), failed(-1001));
  EXPECT_EQ(read(url(stalled), oneSecond), failed(-1001));
  EXPECT_EQ(read(url(shortBody)), failed(-1005));
  EXPECT_EQ(read(url(reset)), failed(-1005));
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

}  // namespace
