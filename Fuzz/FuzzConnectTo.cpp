#include "FuzzSupport.h"
#include "Posix/CurlRequest.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

constexpr std::uint16_t port = 8080;

curl_socket_t noteAddress(void* to, curlsocktype, curl_sockaddr* address) {
  if (address->family == AF_INET) *static_cast<sockaddr_in*>(to) = reinterpret_cast<const sockaddr_in&>(address->addr);
  return CURL_SOCKET_BAD;
}

int lookNothingUp(void*, void*, void*) {
  return 1;
}

}  // namespace

/// The lines of a machine's connect-to file. By themselves they are used as far as the moment when a name would be
/// looked up; behind a line for the request's host, they do not lead it anywhere else.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace platform;
  static const fuzz::Folder folder;
  std::filesystem::create_directories(folder.path() + "/etc");
  for (const bool isLed : {false, true}) {
    const std::string first = isLed ? "host.example:80:127.0.0.1:" + std::to_string(port) + "\n" : "";
    fuzz::write(folder.path() + "/etc/connect-to", first + std::string(fuzz::textOf(data, size)));
    const posix::CurlRequest request(*URL::parse("http://host.example:80/"), posix::Sysroot(folder.path()), 1);
    fuzz::require(request.isValid());
    sockaddr_in reached{};
    curl_easy_setopt(request.get(), CURLOPT_OPENSOCKETFUNCTION, &noteAddress);
    curl_easy_setopt(request.get(), CURLOPT_OPENSOCKETDATA, &reached);
    if (!isLed) curl_easy_setopt(request.get(), CURLOPT_RESOLVER_START_FUNCTION, &lookNothingUp);
    fuzz::require(curl_easy_perform(request.get()) != CURLE_OK);
    if (isLed) fuzz::require(reached.sin_addr.s_addr == htonl(INADDR_LOOPBACK) && reached.sin_port == htons(port));
  }
  return 0;
}
