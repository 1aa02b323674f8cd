#pragma once

#include "Platform/URLSession.h"
#include "Posix/Sysroot.h"

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <curl/curl.h>

namespace platform::posix {

/// A session's data tasks: one curl multi handle driven by one thread, however many tasks there are and however long
/// their servers take. Connections are kept for the tasks that follow, one connection carrying several where the server
/// speaks HTTP/2. No task waits for another's connection to be ready: one that hangs holds back nobody. A POST goes out
/// once: where the server had closed the kept connection before, on a new one; where it closes under the request, no
/// more.
///
/// Thread and connections go fifteen seconds after the last task: long enough for a run of records or steps, and
/// nothing is held while nothing happens. A waiting task is no more than its request and completion.
class CurlDataTransfers : public std::enable_shared_from_this<CurlDataTransfers> {
 public:
  struct Order {
    URLRequest request;
    URLSession::DataCompletion completion;
  };

  CurlDataTransfers(Sysroot sysroot, const URLSessionConfiguration& configuration)
      : sysroot_(std::move(sysroot)), configuration_(configuration) {}

  /// Any thread. Without a thread to be had the task fails on the caller's.
  void start(Order order);

  /// No task is started after those that were: thread and connections go with the last of them.
  void finishAndInvalidate();

 private:
  class Transfer;
  class Worker;

  void work();
  /// Those for which there is room; absent when the thread is to end.
  std::optional<std::vector<Order>> nextOrders(const Worker& worker);
  void failWaiting();

  const Sysroot sysroot_;
  const URLSessionConfiguration configuration_;
  std::mutex mutex_;
  std::deque<Order> waiting_;
  CURLM* running_ = nullptr;  // the handle that the thread waits on; null while there is none to wake
  bool hasThread_ = false;
  bool isInvalidated_ = false;
};

}  // namespace platform::posix
