#include "Posix/CurlRequest.h"

#include "Posix/FileDescriptor.h"
#include "Posix/RegularFile.h"

#include <algorithm>
#include <cerrno>
#include <sstream>

#include <sys/socket.h>
#include <unistd.h>

namespace platform::posix {
namespace {

constexpr long maximumRedirects = 20;
constexpr std::size_t maximumConnectToBytes = std::size_t{1} << 20U;

std::string_view trimmed(std::string_view line) {
  constexpr std::string_view blanks = " \t\r";
  line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
  return line.substr(0, line.find_last_not_of(blanks) + 1);
}

/// The lines of etc/connect-to, each HOST:PORT:CONNECT-HOST:CONNECT-PORT.
curl_slist* connectToLines(const Sysroot& sysroot) {
  const auto text = readRegularFile(sysroot.beneath("etc/connect-to"), maximumConnectToBytes);
  if (!text) return nullptr;
  curl_slist* lines = nullptr;
  std::istringstream stream(*text);
  for (std::string line; std::getline(stream, line);) {
    const std::string entry(trimmed(line));
    if (entry.empty() || entry.starts_with('#')) continue;
    if (curl_slist* longer = curl_slist_append(lines, entry.c_str()); longer != nullptr) lines = longer;
  }
  return lines;
}

bool isMissingRoute(long systemError) {
  return systemError == ENETUNREACH || systemError == ENETDOWN || systemError == EHOSTUNREACH;
}

}  // namespace

CurlRequest::CurlRequest(const URL& url, const Sysroot& sysroot, long idleSeconds)
    : connectTo_(connectToLines(sysroot)),
      handle_(curl_easy_init()),
      idleLimit_(idleSeconds),
      lastProgress_(std::chrono::steady_clock::now()) {
  CURL* handle = handle_.get();
  if (handle == nullptr) return;
  curl_easy_setopt(handle, CURLOPT_URL, url.absoluteString().c_str());
  curl_easy_setopt(handle, CURLOPT_DEFAULT_PROTOCOL, "none");  // a reference without a scheme is not to be guessed at
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, url.scheme() == "https" ? "https" : "http,https");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle, CURLOPT_MAXREDIRS, maximumRedirects);
  curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, idleSeconds);
  curl_easy_setopt(handle, CURLOPT_OPENSOCKETFUNCTION, &CurlRequest::openSocket);
  curl_easy_setopt(handle, CURLOPT_OPENSOCKETDATA, this);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &CurlRequest::checkIdle);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, this);
  if (connectTo_ != nullptr) curl_easy_setopt(handle, CURLOPT_CONNECT_TO, connectTo_.get());
  const std::string certificates = sysroot.beneath("etc/ssl/cert.pem");
  if (access(certificates.c_str(), F_OK) == 0) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, certificates.c_str());
    curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
  }
}

URLResponse CurlRequest::response(const URL& url) const {
  long status = 0;
  curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
  const char* finalURL = nullptr;
  curl_easy_getinfo(handle_.get(), CURLINFO_EFFECTIVE_URL, &finalURL);
  return {.url = URL::parse(finalURL == nullptr ? "" : finalURL).value_or(url), .statusCode = status};
}

long CurlRequest::systemError() const {
  long systemError = 0;
  curl_easy_getinfo(handle_.get(), CURLINFO_OS_ERRNO, &systemError);
  return hasRoute_ && isMissingRoute(systemError) ? 0 : systemError;
}

curl_socket_t CurlRequest::openSocket(void* self, curlsocktype /*purpose*/, curl_sockaddr* address) {
  // To connect a datagram socket sends nothing, but takes a route.
  const FileDescriptor probe(::socket(address->family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (probe && ::connect(probe.get(), &address->addr, address->addrlen) == 0) {
    static_cast<CurlRequest*>(self)->hasRoute_ = true;
  }
  return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

int CurlRequest::checkIdle(void* self, curl_off_t /*toReceive*/, curl_off_t received, curl_off_t /*toSend*/,
                           curl_off_t sent) {
  auto& request = *static_cast<CurlRequest*>(self);
  const auto now = std::chrono::steady_clock::now();
  if (received + sent != request.transferred_) {
    request.transferred_ = received + sent;
    request.lastProgress_ = now;
  }
  return now - request.lastProgress_ >= request.idleLimit_ ? 1 : 0;
}

}  // namespace platform::posix
