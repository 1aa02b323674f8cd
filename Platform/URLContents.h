#pragma once

#include "Platform/NSError.h"
#include "Platform/URL.h"

#include <expected>
#include <string>

namespace platform {

/// Reads a whole resource into memory, as `Data(contentsOf:)` does. Any thread; blocks it until the resource has come
/// or failed.
///
/// https and http: certificates are always verified; up to 20 redirects are followed, none from https to http; 60
/// seconds without a byte is a time-out; nothing is cached; whatever body came is the result, the status is not looked
/// at. file: a regular file. A body of more than 64 MiB (decoded) is a failed read. Failures are Cocoa read codes over
/// the NSURLErrorDomain or POSIX error.
class URLContents {
 public:
  static constexpr std::size_t maximumBytes = std::size_t{64} << 20U;

  virtual ~URLContents() = default;
  virtual std::expected<std::string, NSError> contents(const URL& url) = 0;
};

}  // namespace platform
