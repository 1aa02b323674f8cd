#pragma once

#include "Platform/Clock.h"
#include "Platform/NSError.h"
#include "Platform/URL.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

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

class URLSessionTask {
 public:
  virtual ~URLSessionTask() = default;
  /// Starts the task, once.
  virtual void resume() = 0;
};

/// A network session. Any thread. Completions run on threads of the session's, each once.
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

  virtual ~URLSession() = default;

  /// A task that downloads into a file, in constant memory.
  virtual std::shared_ptr<URLSessionTask> downloadTask(const URL& with, DownloadCompletion completionHandler) = 0;
};

/// Makes sessions.
class URLSessions {
 public:
  virtual ~URLSessions() = default;
  virtual std::shared_ptr<URLSession> session(const URLSessionConfiguration& configuration) = 0;
};

}  // namespace platform
