#pragma once

#include "Platform/URLSession.h"
#include "Posix/Sysroot.h"

#include <chrono>
#include <memory>

#include <curl/curl.h>

namespace platform::posix {

/// One easy handle with what every request of this machine has in common: verified certificates (the sysroot's
/// etc/ssl/cert.pem when it is there), the sysroot's connect-to lines, no proxy, http and https only, up to 20
/// redirects and none from https to http, an idle time-out. Curl must have been initialized. One thread at a time.
class CurlRequest {
 public:
  CurlRequest(const URL& url, const Sysroot& sysroot, long idleSeconds);
  CurlRequest(const CurlRequest&) = delete;
  CurlRequest& operator=(const CurlRequest&) = delete;

  /// False when curl could not be set up, for want of memory.
  [[nodiscard]] bool isValid() const { return handle_ != nullptr; }
  [[nodiscard]] CURL* get() const { return handle_.get(); }

  /// When the idle time-out ends this request unless a byte comes before. Curl has to be driven then: it looks only
  /// when it runs.
  [[nodiscard]] std::chrono::steady_clock::time_point idleDeadline() const { return lastProgress_ + idleLimit_; }
  /// What has come of the transfer; `url` is the one asked for.
  [[nodiscard]] URLResponse response(const URL& url) const;
  /// The errno of the failed connection; 0 when there is none. Of a server with several addresses curl tells the last
  /// one's, so a missing route counts only where none of those that were tried has one.
  [[nodiscard]] long systemError() const;

 private:
  static curl_socket_t openSocket(void* self, curlsocktype, curl_sockaddr* address);
  static int checkIdle(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent);

  struct HandleCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  };
  struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  std::unique_ptr<curl_slist, ListFree> connectTo_;
  std::unique_ptr<CURL, HandleCleanup> handle_;
  std::chrono::seconds idleLimit_;
  bool hasRoute_ = false;
  curl_off_t transferred_ = 0;
  std::chrono::steady_clock::time_point lastProgress_;
};

}  // namespace platform::posix
