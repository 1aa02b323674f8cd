#include "FuzzSupport.h"
#include "Posix/CurlRequest.h"

/// The lines of a machine's connect-to file, as far as the moment when a name would be looked up or a socket made.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace platform;
  static const fuzz::Folder folder;
  std::filesystem::create_directories(folder.path() + "/etc");
  fuzz::write(folder.path() + "/etc/connect-to", fuzz::textOf(data, size));
  const posix::CurlRequest request(*URL::parse("http://host.example:80/"), posix::Sysroot(folder.path()), 1);
  fuzz::require(request.isValid());
  const auto noSocket = [](void*, curlsocktype, curl_sockaddr*) -> curl_socket_t { return CURL_SOCKET_BAD; };
  const auto noLookUp = [](void*, void*, void*) { return 1; };
  curl_easy_setopt(request.get(), CURLOPT_OPENSOCKETFUNCTION, +noSocket);
  curl_easy_setopt(request.get(), CURLOPT_RESOLVER_START_FUNCTION, +noLookUp);
  fuzz::require(curl_easy_perform(request.get()) != CURLE_OK);
  return 0;
}
