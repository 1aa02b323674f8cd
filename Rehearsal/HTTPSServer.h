#pragma once

#include "Rehearsal/CertificateAuthority.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace rehearsal {

struct HTTPResponse {
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  std::string location;  // of a redirect
  /// Sent instead of the body, a piece at a time; `sent` is told after each how many bytes of how many have gone.
  std::filesystem::path file;
  std::function<void(std::size_t sent, std::size_t total)> progress;
};

struct HTTPRequest {
  std::string method;
  std::string path;
  std::string host;  // the Host header
  std::string body;
  std::map<std::string, std::string> headers;  // names in lower case; of several alike one
};

/// A real TLS server on a loopback port of its own, from construction to destruction. The handler runs on threads of
/// the server's, several at once.
class HTTPSServer {
 public:
  using Handler = std::function<HTTPResponse(const HTTPRequest&)>;

  /// The credentials are used while the server lives. A connection that asks nothing for `idleLimit` is closed.
  HTTPSServer(const Credentials& credentials, Handler handler,
              std::chrono::seconds idleLimit = std::chrono::seconds(5));
  HTTPSServer(const HTTPSServer&) = delete;
  HTTPSServer& operator=(const HTTPSServer&) = delete;
  ~HTTPSServer();

  [[nodiscard]] std::uint16_t port() const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace rehearsal
