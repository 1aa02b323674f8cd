#include "Rehearsal/HTTPSServer.h"

#include <cctype>
#include <fstream>
#include <stdexcept>
#include <thread>

#define CPPHTTPLIB_OPENSSL_SUPPORT
#include <httplib.h>

namespace rehearsal {
namespace {

constexpr std::size_t pieceBytes = std::size_t{256} << 10U;

void sendFile(const HTTPResponse& answer, httplib::Response& response) {
  const auto file = std::make_shared<std::ifstream>(answer.file, std::ios::binary);
  const std::size_t total = std::filesystem::file_size(answer.file);
  response.set_content_provider(
      total, "application/octet-stream",
      [file, total, progress = answer.progress](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        std::string piece(std::min(length, pieceBytes), '\0');
        file->seekg(static_cast<std::streamoff>(offset));
        file->read(piece.data(), static_cast<std::streamsize>(piece.size()));
        if (file->gcount() <= 0 || !sink.write(piece.data(), static_cast<std::size_t>(file->gcount()))) return false;
        if (progress) progress(offset + static_cast<std::size_t>(file->gcount()), total);
        return true;
      });
}

std::map<std::string, std::string> headersOf(const httplib::Request& request) {
  std::map<std::string, std::string> headers;
  for (const auto& [name, value] : request.headers) {
    std::string key = name;
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    headers[key] = value;
  }
  return headers;
}

void respond(const HTTPSServer::Handler& handler, const httplib::Request& request, httplib::Response& response) {
  const HTTPResponse answer = handler({.method = request.method,
                                       .path = request.path,
                                       .host = request.get_header_value("Host"),
                                       .body = request.body,
                                       .headers = headersOf(request)});
  response.status = answer.status;
  if (!answer.file.empty()) {
    sendFile(answer, response);
    return;
  }
  if (!answer.location.empty()) response.set_header("Location", answer.location);
  response.set_content(answer.body, answer.contentType);
}

}  // namespace

struct HTTPSServer::Implementation {
  Implementation(const Credentials& credentials, Handler answer, std::chrono::seconds idleLimit)
      : handler(std::move(answer)), server(credentials.certificate.get(), credentials.key.get()) {
    const auto forward = [this](const httplib::Request& request, httplib::Response& response) {
      respond(handler, request, response);
    };
    server.set_tcp_nodelay(true);  // or a body waits for the acknowledgement of its header
    server.set_keep_alive_timeout(idleLimit.count());
    server.Get(".*", forward);
    server.Post(".*", forward);
    port = server.bind_to_any_port("127.0.0.1");
    if (port <= 0) throw std::runtime_error("no loopback port to be had for a server");
    thread = std::thread([this] { server.listen_after_bind(); });
    while (!server.is_running()) std::this_thread::yield();
  }

  ~Implementation() {
    server.stop();
    thread.join();
  }

  Handler handler;
  httplib::SSLServer server;
  int port = 0;
  std::thread thread;
};

HTTPSServer::HTTPSServer(const Credentials& credentials, Handler handler, std::chrono::seconds idleLimit)
    : implementation_(std::make_unique<Implementation>(credentials, std::move(handler), idleLimit)) {}

HTTPSServer::~HTTPSServer() = default;

std::uint16_t HTTPSServer::port() const {
  return static_cast<std::uint16_t>(implementation_->port);
}

}  // namespace rehearsal
