#include "Posix/CurlURLContents.h"

#include "Posix/CurlError.h"
#include "Posix/CurlRequest.h"
#include "Posix/PosixError.h"
#include "Posix/RegularFile.h"

namespace platform::posix {
namespace {

struct Body {
  std::string bytes;
  std::size_t maximum;

  static std::size_t append(const char* data, std::size_t /*always 1*/, std::size_t count, void* self) {
    auto& body = *static_cast<Body*>(self);
    if (count > body.maximum - body.bytes.size()) return CURL_WRITEFUNC_ERROR;
    body.bytes.append(data, count);
    return count;
  }
};

}  // namespace

std::expected<std::string, NSError> CurlURLContents::contents(const URL& url) {
  if (!url.isFileURL()) return download(url);
  auto bytes = readRegularFile(sysroot_.machinePath(url.path()), limits_.bytes);
  if (!bytes) return std::unexpected(cocoaError(bytes.error(), Access::reading, url.path()));
  return std::move(*bytes);
}

std::expected<std::string, NSError> CurlURLContents::download(const URL& url) const {
  const NSError failure(NSCocoaErrorDomain, NSFileReadUnknownError);
  const CurlRequest request(url, sysroot_, limits_.idleSeconds);
  if (!request.isValid()) return std::unexpected(failure);
  Body body{.bytes = {}, .maximum = limits_.bytes};
  curl_easy_setopt(request.get(), CURLOPT_TIMEOUT, limits_.totalSeconds);
  curl_easy_setopt(request.get(), CURLOPT_WRITEFUNCTION, &Body::append);
  curl_easy_setopt(request.get(), CURLOPT_WRITEDATA, &body);
  const CURLcode code = curl_easy_perform(request.get());
  if (code == CURLE_OK) return std::move(body.bytes);
  if (code == CURLE_WRITE_ERROR) return std::unexpected(NSError(NSCocoaErrorDomain, NSFileReadTooLargeError));
  return std::unexpected(failure.withUnderlying(urlError(code, request.systemError())));
}

}  // namespace platform::posix
