#pragma once

#include "Platform/URLContents.h"
#include "Posix/Sysroot.h"

namespace platform::posix {

/// libcurl, one connection a read; the sysroot's connect-to lines and certificate file are looked up for each. The
/// limits are the platform's: 60 seconds without a byte, seven days in all.
class CurlURLContents final : public URLContents {
 public:
  struct Limits {
    long idleSeconds = 60;
    long totalSeconds = 604800;
    std::size_t bytes = maximumBytes;
  };

  CurlURLContents(Sysroot sysroot, Limits limits) : sysroot_(std::move(sysroot)), limits_(limits) {}

  std::expected<std::string, NSError> contents(const URL& url) override;

 private:
  std::expected<std::string, NSError> download(const URL& url) const;

  Sysroot sysroot_;
  Limits limits_;
};

}  // namespace platform::posix
