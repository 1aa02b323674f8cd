#include "Posix/CurlURLSession.h"

#include "Posix/CurlDataTransfers.h"
#include "Posix/CurlError.h"
#include "Posix/CurlRequest.h"
#include "Posix/FileDescriptor.h"
#include "Posix/FileTree.h"
#include "Posix/ThreadTasks.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <expected>
#include <thread>

#include <fcntl.h>
#include <netdb.h>
#include <sys/stat.h>

namespace platform::posix {
namespace {

using Seconds = std::chrono::duration<double>;
using Clock = std::chrono::steady_clock;
using Deadline = std::chrono::time_point<Clock, Seconds>;
constexpr Seconds longestPause{30};

/// A transfer's end: how curl judged it and, of a failed connection, the system's reason.
struct Outcome {
  CURLcode code = CURLE_FAILED_INIT;
  long systemError = 0;
};

/// Where a download goes.
struct Sink {
  int descriptor;
  std::int64_t written = 0;
  [[nodiscard]] bool isFull() const { return written > URLSession::maximumDownloadBytes; }
};

std::size_t writeToFile(const char* data, std::size_t /*always 1*/, std::size_t count, void* to) {
  Sink& sink = *static_cast<Sink*>(to);
  sink.written += static_cast<std::int64_t>(count);
  if (sink.isFull()) return CURL_WRITEFUNC_ERROR;
  std::size_t done = 0;
  while (done < count) {
    const ssize_t written = write(sink.descriptor, data + done, count - done);
    if (written < 0 && errno != EINTR) return CURL_WRITEFUNC_ERROR;
    if (written > 0) done += static_cast<std::size_t>(written);
  }
  return count;
}

/// Whether the name could not be looked up for want of a name service, as against a name that does not exist.
bool nameServiceIsMissing(const URL& url) {
  addrinfo* found = nullptr;
  const int failure = getaddrinfo(url.host().c_str(), nullptr, nullptr, &found);
  if (found != nullptr) freeaddrinfo(found);
  return failure == EAI_AGAIN;
}

/// `url` is the one that failed, after the redirects so far.
bool mayWaitForConnectivity(const Outcome& outcome, const URL& url) {
  if (outcome.code == CURLE_COULDNT_RESOLVE_HOST) return nameServiceIsMissing(url);
  if (outcome.code != CURLE_COULDNT_CONNECT) return false;
  return outcome.systemError == ENETUNREACH || outcome.systemError == ENETDOWN || outcome.systemError == EHOSTUNREACH;
}

constexpr int suffixLength = 4;  // ".tmp"

/// The session's file for one task, gone with the object unless it was moved away.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& folder)
      : path_(folder + "/CFNetworkDownload_XXXXXX.tmp"),
        descriptor_(mkostemps(path_.data(), suffixLength, O_CLOEXEC)) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (wasMade_) unlink(path_.c_str());
  }

  [[nodiscard]] bool isOpen() const { return static_cast<bool>(descriptor_); }
  [[nodiscard]] int descriptor() const { return descriptor_.get(); }
  [[nodiscard]] URL url() const { return URL::fileURL(path_); }
  void close() { descriptor_.reset(); }

 private:
  std::string path_;
  FileDescriptor descriptor_;
  bool wasMade_ = isOpen();
};

class DownloadTask final : public URLSessionTask, public std::enable_shared_from_this<DownloadTask> {
 public:
  DownloadTask(Machine machine, const URLSessionConfiguration& configuration, URL url,
               URLSession::DownloadCompletion completion)
      : machine_(std::move(machine)),
        configuration_(configuration),
        url_(std::move(url)),
        completion_(std::move(completion)) {}

  void resume() override {
    // Without a thread the caller's own must do: the completion is owed in any case.
    if (!startThread([self = shared_from_this()] { self->run(); })) run();
  }

 private:
  void run() {
    TemporaryFile file(machine_.temporaryDirectory);
    if (!file.isOpen()) {
      completion_(std::nullopt, std::nullopt, urlError(CURLE_WRITE_ERROR, errno));
      return;
    }
    auto response = url_.isFileURL() ? copyFromFile(file) : download(file);
    file.close();
    if (response) {
      completion_(file.url(), *response, std::nullopt);
    } else {
      completion_(std::nullopt, std::nullopt, response.error());
    }
  }

  std::expected<URLResponse, NSError> copyFromFile(const TemporaryFile& file) const {
    const FileDescriptor source(
        open(machine_.sysroot.machinePath(url_.path()).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!source) return std::unexpected(fileURLError(errno));
    struct stat status{};
    if (fstat(source.get(), &status) != 0) return std::unexpected(fileURLError(errno));
    if (!S_ISREG(status.st_mode)) return std::unexpected(fileURLError(S_ISDIR(status.st_mode) ? EISDIR : EACCES));
    if (copyBytes(source.get(), file.descriptor()) != 0) return std::unexpected(urlError(CURLE_WRITE_ERROR, 0));
    return URLResponse{.url = url_};
  }

  [[nodiscard]] std::expected<URLResponse, NSError> download(const TemporaryFile& file) const {
    const Deadline deadline = Clock::now() + Seconds(configuration_.timeoutIntervalForResource);
    Seconds pause{1};
    while (true) {
      URLResponse response{.url = url_};
      const Outcome outcome = attempt(file, deadline, response);
      if (outcome.code == CURLE_OK) return response;
      const bool waits = configuration_.waitsForConnectivity && mayWaitForConnectivity(outcome, response.url);
      if (!waits || Clock::now() >= deadline) {
        if (outcome.code == CURLE_FILESIZE_EXCEEDED) return std::unexpected(dataTooLongError());
        return std::unexpected(urlError(waits ? CURLE_OPERATION_TIMEDOUT : outcome.code, outcome.systemError));
      }
      std::this_thread::sleep_until(std::min<Deadline>(Clock::now() + pause, deadline));
      pause = std::min(2 * pause, longestPause);
    }
  }

  Outcome attempt(const TemporaryFile& file, Deadline deadline, URLResponse& response) const {
    const CurlRequest request(url_, machine_.sysroot, std::lround(configuration_.timeoutIntervalForRequest));
    if (!request.isValid()) return {};
    CURL* handle = request.get();
    Sink sink{.descriptor = file.descriptor()};
    const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - Clock::now());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, std::max(static_cast<long>(left.count()), 1L));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &writeToFile);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, curl_off_t{URLSession::maximumDownloadBytes});
    const CURLcode code = curl_easy_perform(handle);
    response = request.response(url_);
    if (sink.isFull()) return {.code = CURLE_FILESIZE_EXCEEDED};
    return {.code = code, .systemError = request.systemError()};
  }

  Machine machine_;
  URLSessionConfiguration configuration_;
  URL url_;
  URLSession::DownloadCompletion completion_;
};

class DataTask final : public URLSessionTask {
 public:
  DataTask(std::shared_ptr<CurlDataTransfers> transfers, const URLRequest& request,
           URLSession::DataCompletion completion)
      : transfers_(std::move(transfers)), order_{.request = request, .completion = std::move(completion)} {}

  void resume() override { transfers_->start(std::move(order_)); }

 private:
  std::shared_ptr<CurlDataTransfers> transfers_;
  CurlDataTransfers::Order order_;
};

class CurlURLSession final : public URLSession {
 public:
  CurlURLSession(const Machine& machine, const URLSessionConfiguration& configuration)
      : machine_(machine),
        configuration_(configuration),
        dataTransfers_(std::make_shared<CurlDataTransfers>(machine.sysroot, configuration)) {}
  CurlURLSession(const CurlURLSession&) = delete;
  CurlURLSession& operator=(const CurlURLSession&) = delete;
  ~CurlURLSession() override { dataTransfers_->finishAndInvalidate(); }

  std::shared_ptr<URLSessionTask> downloadTask(const URL& with, DownloadCompletion completionHandler) override {
    return std::make_shared<DownloadTask>(machine_, configuration_, with, std::move(completionHandler));
  }

  std::shared_ptr<URLSessionTask> dataTask(const URLRequest& with, DataCompletion completionHandler) override {
    return std::make_shared<DataTask>(dataTransfers_, with, std::move(completionHandler));
  }

 private:
  Machine machine_;
  URLSessionConfiguration configuration_;
  std::shared_ptr<CurlDataTransfers> dataTransfers_;
};

}  // namespace

std::shared_ptr<URLSession> CurlURLSessions::session(const URLSessionConfiguration& configuration) {
  return std::make_shared<CurlURLSession>(machine_, configuration);
}

}  // namespace platform::posix
