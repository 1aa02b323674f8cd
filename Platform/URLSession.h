#pragma once

#include "Platform/Clock.h"
#include "Platform/NSError.h"
#include "Platform/URL.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace platform {

/// How a session's tasks behave. Sessions are ephemeral: no cookies, caches or credentials.
struct URLSessionConfiguration {
  /// Without a byte for so long a task has timed out. Does not run while a task waits for connectivity.
  TimeInterval timeoutIntervalForRequest = 60;
  /// A task has timed out after so long, waiting included.
  TimeInterval timeoutIntervalForResource = 604800;
  /// Whether a task waits while there is no route to anywhere or no name service, instead of failing. A connection that
  /// is refused or reset fails it all the same.
  bool waitsForConnectivity = false;
};

struct URLResponse {
  URL url;                      // of the last redirect
  std::int64_t statusCode = 0;  // 0 for a file
};

/// What to ask of a server. The cache policy is the protocol's default; sessions keep no cache.
struct URLRequest {
  URL url;
  /// Without a byte for so long the task has timed out; the session's own limit counts where it is stricter.
  TimeInterval timeoutInterval = 60;
  std::string httpMethod = "GET";
  std::map<std::string, std::string> httpHeaderFields;
  std::string httpBody;  // sent with POST
};

class URLSessionTask {
 public:
  virtual ~URLSessionTask() = default;
  /// Starts the task, once.
  virtual void resume() = 0;
};

/// A network session. Any thread. Completions run on threads of the session's, each once; when no
/// thread can be had, on the caller's of resume().
///
/// https and http: certificates are always verified, up to 20 redirects are followed, none from https to http; any
/// status is a response like another. file: a regular file. Failures are of NSURLErrorDomain.
class URLSession {
 public:
  /// The file is the session's and goes when the completion has returned; its name is CFNetworkDownload_XXXXXX.tmp, its
  /// mode 0600, its folder the temporary directory. Absent when there is an error.
  using DownloadCompletion =
      std::move_only_function<void(const std::optional<URL>& location, const std::optional<URLResponse>& response,
                                   const std::optional<NSError>& error)>;

  /// The body of the response, whatever its status; absent when there is an error.
  using DataCompletion =
      std::move_only_function<void(const std::optional<std::string>& data, const std::optional<URLResponse>& response,
                                   const std::optional<NSError>& error)>;

  /// A download may have so many bytes, by what the server declares and by what comes; a longer one fails the task. No
  /// disk image of an application comes near it.
  static constexpr std::int64_t maximumDownloadBytes = std::int64_t{8} << 30U;
  /// A data task's body may have so many bytes; a longer one fails the task.
  static constexpr std::size_t maximumDataBytes = std::size_t{256} << 10U;
  /// So many data tasks of a session are under way at once, on as many connections or fewer; the others wait in the
  /// order in which they were resumed.
  static constexpr std::size_t maximumDataTransfers = 6;

  virtual ~URLSession() = default;

  /// A task that downloads into a file, in constant memory.
  virtual std::shared_ptr<URLSessionTask> downloadTask(const URL& with, DownloadCompletion completionHandler) = 0;

  /// A task that exchanges a small body for another, over http or https only. Never waits for connectivity. A server
  /// that drips does not hold it for ever: it has timed out after its time-out, bytes or not. All completions of
  /// a session's data tasks come one after the other, so they must be short.
  virtual std::shared_ptr<URLSessionTask> dataTask(const URLRequest& with, DataCompletion completionHandler) = 0;
};

/// Makes sessions.
class URLSessions {
 public:
  virtual ~URLSessions() = default;
  virtual std::shared_ptr<URLSession> session(const URLSessionConfiguration& configuration) = 0;
};

}  // namespace platform
