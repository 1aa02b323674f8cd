#pragma once

#include "Platform/URLSession.h"
#include "Posix/Machine.h"

namespace platform::posix {

/// libcurl, a thread a download; data tasks share one (CurlDataTransfers). While a task waits for connectivity it tries
/// again after one second, then two, four, … up to thirty: there is nobody to tell it that the network is back.
class CurlURLSessions final : public URLSessions {
 public:
  explicit CurlURLSessions(Machine machine) : machine_(std::move(machine)) {}

  std::shared_ptr<URLSession> session(const URLSessionConfiguration& configuration) override;

 private:
  Machine machine_;
};

}  // namespace platform::posix
