#pragma once

namespace platform {

/// Told of the application's two moments; both on the main thread.
class ApplicationDelegate {
 public:
  virtual ~ApplicationDelegate() = default;
  virtual void applicationDidFinishLaunching() = 0;
  virtual void applicationWillTerminate() = 0;
  [[nodiscard]] virtual bool applicationSupportsSecureRestorableState() const = 0;
};

/// The shared application object: runs the main run loop and asks its delegate at start and end.
///
/// SIGTERM and SIGINT ask it to terminate, as a logout does on a Mac. No user interface, no state to restore, no way
/// for a delegate to refuse.
class Application {
 public:
  virtual ~Application() = default;

  /// Not owned; must outlive run().
  virtual void setDelegate(ApplicationDelegate& delegate) = 0;

  /// Tells the delegate that launching has finished, then runs the main run loop until the application terminates. Does
  /// not return: the process exits with status 0, without waiting for background work.
  virtual void run() = 0;

  /// Tells the delegate, then exits the process with status 0. Main thread.
  virtual void terminate() = 0;
};

}  // namespace platform
