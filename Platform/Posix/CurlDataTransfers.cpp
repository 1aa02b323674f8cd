#include "Posix/CurlDataTransfers.h"

#include "Posix/CurlError.h"
#include "Posix/CurlRequest.h"
#include "Posix/ThreadTasks.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace platform::posix {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds keepAlive{15};
constexpr std::chrono::milliseconds shortestWait{10};

struct MultiCleanup {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
using Multi = std::unique_ptr<CURLM, MultiCleanup>;

Multi makeMulti() {
  Multi multi(curl_multi_init());
  if (multi == nullptr) return multi;
  constexpr long connections = URLSession::maximumDataTransfers;
  curl_multi_setopt(multi.get(), CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
  curl_multi_setopt(multi.get(), CURLMOPT_MAX_TOTAL_CONNECTIONS, connections);
  curl_multi_setopt(multi.get(), CURLMOPT_MAX_HOST_CONNECTIONS, connections);
  curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, connections);
  return multi;
}

/// The sockets of the connections that are kept.
class Sockets {
 public:
  /// Of every connection that this handle opens, until it is closed.
  void follow(CURL* handle) {
    curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, &Sockets::opened);
    curl_easy_setopt(handle, CURLOPT_SOCKOPTDATA, this);
    curl_easy_setopt(handle, CURLOPT_CLOSESOCKETFUNCTION, &Sockets::closed);
    curl_easy_setopt(handle, CURLOPT_CLOSESOCKETDATA, this);
  }

  /// Whether the server has closed the connection from this local port, or has sent something on it unasked: behind TLS
  /// that is how it begins to close.
  [[nodiscard]] bool hasEnded(int localPort) const {
    const auto found = std::ranges::find(open_, localPort, &Sockets::localPort);
    if (found == open_.end()) return false;
    const bool isAsked = std::ranges::find(asked_, localPort) != asked_.end();
    const int events = isAsked ? POLLRDHUP : POLLRDHUP | POLLIN;
    pollfd state{.fd = *found, .events = static_cast<short>(events), .revents = 0};
    return ::poll(&state, 1, 0) == 1;
  }

  /// A request has gone out from this local port; several at a time where they share a connection.
  void ask(int localPort) { asked_.push_back(localPort); }
  /// It has got its answer or will get none.
  void answer(int localPort) {
    const auto found = std::ranges::find(asked_, localPort);
    if (found != asked_.end()) asked_.erase(found);
  }

 private:
  static int opened(void* self, curl_socket_t socket, curlsocktype /*purpose*/) {
    static_cast<Sockets*>(self)->open_.push_back(socket);
    return CURL_SOCKOPT_OK;
  }
  static int closed(void* self, curl_socket_t socket) {
    std::erase(static_cast<Sockets*>(self)->open_, socket);
    return ::close(socket);
  }
  static int localPort(curl_socket_t socket) {
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) return -1;
    // The port stands at the same place in the addresses of both families.
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
  }

  std::vector<curl_socket_t> open_;
  std::vector<int> asked_;  // local ports
};

long idleSeconds(const URLRequest& request, const URLSessionConfiguration& configuration) {
  return std::max(std::lround(std::min(request.timeoutInterval, configuration.timeoutIntervalForRequest)), 1L);
}

}  // namespace

/// One task while it is under way.
class CurlDataTransfers::Transfer {
 public:
  Transfer(Order order, const Sysroot& sysroot, const URLSessionConfiguration& configuration, Sockets& sockets)
      : order_(std::move(order)),
        sockets_(sockets),
        idleSeconds_(idleSeconds(order_.request, configuration)),
        request_(order_.request.url, sysroot, idleSeconds_) {
    if (request_.isValid()) prepare(configuration);
  }
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() { sockets_.answer(localPort_); }

  [[nodiscard]] CURL* handle() const { return request_.get(); }
  [[nodiscard]] Clock::time_point idleDeadline() const { return request_.idleDeadline(); }

  /// Whether nothing was sent, as the connection had ended; it takes a new one then.
  bool beginsAnew() {
    if (refusal_ != Refusal::hasEnded || std::exchange(isAnew_, true)) return false;
    curl_easy_setopt(handle(), CURLOPT_FRESH_CONNECT, 1L);
    return true;
  }

  void complete(CURLcode code) {
    if (code == CURLE_OK) {
      order_.completion(body_, request_.response(order_.request.url), std::nullopt);
    } else {
      if (code == CURLE_ABORTED_BY_CALLBACK && refusal_ == Refusal::wasSent) code = CURLE_GOT_NOTHING;
      const bool tooLong = code == CURLE_WRITE_ERROR;
      order_.completion(std::nullopt, std::nullopt,
                        tooLong ? dataTooLongError() : urlError(code, request_.systemError()));
    }
  }

 private:
  /// Why the request did not go out, or not again.
  enum class Refusal { none, wasSent, hasEnded };
  struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  void prepare(const URLSessionConfiguration& configuration) {
    const double longest =
        std::min(static_cast<double>(idleSeconds_), std::max(configuration.timeoutIntervalForResource, 1.0));
    sockets_.follow(handle());
    curl_easy_setopt(handle(), CURLOPT_TIMEOUT, std::lround(longest));
    curl_easy_setopt(handle(), CURLOPT_QUICK_EXIT, 1L);  // a name service that hangs is not waited for
    curl_easy_setopt(handle(), CURLOPT_WRITEFUNCTION, &Transfer::append);
    curl_easy_setopt(handle(), CURLOPT_WRITEDATA, this);
    prepareMethod();
    addHeader("Expect:");  // none: the server is not asked whether it wants the body
    for (const auto& [name, value] : order_.request.httpHeaderFields)
      addHeader(std::string(name).append(": ").append(value));
    curl_easy_setopt(handle(), CURLOPT_HTTPHEADER, headers_.get());
  }

  void prepareMethod() {
    const URLRequest& request = order_.request;
    if (request.httpMethod == "POST") {
      curl_easy_setopt(handle(), CURLOPT_PREREQFUNCTION, &Transfer::mayBeSent);
      curl_easy_setopt(handle(), CURLOPT_PREREQDATA, this);
      curl_easy_setopt(handle(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.httpBody.size()));
      curl_easy_setopt(handle(), CURLOPT_POSTFIELDS, request.httpBody.data());
    } else if (request.httpMethod != "GET") {
      curl_easy_setopt(handle(), CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
    }
  }

  /// A connection that is reused may end before the answer comes, and the library would send the request again; but who
  /// can tell whether the server has not acted on it? Only a redirect makes it go out once more. On a kept connection
  /// that the server has closed already nothing is sent: the library may not have noticed behind TLS.
  static int mayBeSent(void* self, char* /*peer*/, char* /*local*/, int /*peerPort*/, int localPort) {
    auto& transfer = *static_cast<Transfer*>(self);
    transfer.sockets_.answer(std::exchange(transfer.localPort_, 0));
    long redirects = 0;
    curl_easy_getinfo(transfer.handle(), CURLINFO_REDIRECT_COUNT, &redirects);
    if (transfer.timesSent_ > redirects) return transfer.refuse(Refusal::wasSent);
    long newConnections = 0;
    curl_easy_getinfo(transfer.handle(), CURLINFO_NUM_CONNECTS, &newConnections);
    const bool isKept = transfer.timesSent_ == 0 && newConnections == 0;
    if (isKept && transfer.sockets_.hasEnded(localPort)) return transfer.refuse(Refusal::hasEnded);
    ++transfer.timesSent_;
    transfer.sockets_.ask(transfer.localPort_ = localPort);
    return CURL_PREREQFUNC_OK;
  }

  int refuse(Refusal reason) {
    refusal_ = reason;
    return CURL_PREREQFUNC_ABORT;
  }

  void addHeader(const std::string& line) {
    curl_slist* head = curl_slist_append(headers_.get(), line.c_str());
    if (headers_ == nullptr) headers_.reset(head);
  }

  static std::size_t append(const char* data, std::size_t /*always 1*/, std::size_t count, void* self) {
    std::string& body = static_cast<Transfer*>(self)->body_;
    if (count > URLSession::maximumDataBytes - body.size()) return CURL_WRITEFUNC_ERROR;
    body.append(data, count);
    return count;
  }

  Order order_;
  Sockets& sockets_;
  long idleSeconds_;
  std::unique_ptr<curl_slist, ListFree> headers_;
  std::string body_;
  int localPort_ = 0;
  long timesSent_ = 0;
  Refusal refusal_ = Refusal::none;
  bool isAnew_ = false;
  CurlRequest request_;
};

/// What the thread works with, for as long as it lives.
class CurlDataTransfers::Worker {
 public:
  explicit Worker(CurlDataTransfers& owner) : owner_(owner) {}

  [[nodiscard]] CURLM* multi() const { return multi_.get(); }
  [[nodiscard]] std::size_t freePlaces() const { return URLSession::maximumDataTransfers - transfers_.size(); }
  [[nodiscard]] bool isIdleFor(Clock::duration time) const {
    return transfers_.empty() && (multi_ == nullptr || Clock::now() - lastEnd_ >= time);
  }

  void begin(Order order) {
    auto transfer = std::make_unique<Transfer>(std::move(order), owner_.sysroot_, owner_.configuration_, sockets_);
    if (transfer->handle() == nullptr || curl_multi_add_handle(multi(), transfer->handle()) != CURLM_OK) {
      finish(*transfer, CURLE_OUT_OF_MEMORY);
    } else {
      transfers_.push_back(std::move(transfer));
    }
  }

  /// True when places have become free.
  bool drive() {
    int stillRunning = 0;
    curl_multi_perform(multi(), &stillRunning);
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi(), &left)) {
      if (message->msg == CURLMSG_DONE) end(message->easy_handle, message->data.result);
    }
    return std::exchange(hasFinished_, false);
  }

  /// Until something happens on a connection, a time-out ends, or start() has an order.
  void wait() const {
    Clock::time_point until = transfers_.empty() ? lastEnd_ + keepAlive : Clock::time_point::max();
    for (const auto& transfer : transfers_) until = std::min(until, transfer->idleDeadline());
    const auto time = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    curl_multi_poll(multi(), nullptr, 0, static_cast<int>(std::max(time, shortestWait).count()), nullptr);
  }

 private:
  void end(CURL* handle, CURLcode code) {
    const auto ended = std::ranges::find(transfers_, handle, &Transfer::handle);
    if (ended == transfers_.end()) return;
    curl_multi_remove_handle(multi(), handle);
    if ((*ended)->beginsAnew() && curl_multi_add_handle(multi(), handle) == CURLM_OK) return;
    const std::unique_ptr<Transfer> transfer = std::move(*ended);
    transfers_.erase(ended);
    finish(*transfer, code);
  }

  void finish(Transfer& transfer, CURLcode code) {
    transfer.complete(code);
    lastEnd_ = Clock::now();
    hasFinished_ = true;
  }

  CurlDataTransfers& owner_;
  Sockets sockets_;
  Multi multi_ = makeMulti();
  std::vector<std::unique_ptr<Transfer>> transfers_;
  Clock::time_point lastEnd_ = Clock::now();
  bool hasFinished_ = false;
};

void CurlDataTransfers::start(Order order) {
  {
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(order));
    if (running_ != nullptr) curl_multi_wakeup(running_);
    if (std::exchange(hasThread_, true)) return;
  }
  if (!startThread([self = shared_from_this()] { self->work(); })) failWaiting();
}

void CurlDataTransfers::finishAndInvalidate() {
  const std::lock_guard lock(mutex_);
  isInvalidated_ = true;
  if (running_ != nullptr) curl_multi_wakeup(running_);
}

void CurlDataTransfers::failWaiting() {
  std::deque<Order> failed;
  {
    const std::lock_guard lock(mutex_);
    failed.swap(waiting_);
    hasThread_ = false;
  }
  for (Order& order : failed) order.completion(std::nullopt, std::nullopt, urlError(CURLE_OUT_OF_MEMORY, 0));
}

void CurlDataTransfers::work() {
  pthread_setname_np(pthread_self(), "URLSession");
  Worker worker(*this);
  while (auto orders = nextOrders(worker)) {
    for (Order& order : *orders) worker.begin(std::move(order));
    if (!worker.drive()) worker.wait();
  }
}

std::optional<std::vector<CurlDataTransfers::Order>> CurlDataTransfers::nextOrders(const Worker& worker) {
  const std::lock_guard lock(mutex_);
  std::vector<Order> next;
  while (!waiting_.empty() && next.size() < worker.freePlaces()) {
    next.push_back(std::move(waiting_.front()));
    waiting_.pop_front();
  }
  hasThread_ = !next.empty() || !worker.isIdleFor(isInvalidated_ ? Clock::duration::zero() : keepAlive);
  running_ = hasThread_ ? worker.multi() : nullptr;
  if (!hasThread_) return std::nullopt;
  return next;
}

}  // namespace platform::posix
