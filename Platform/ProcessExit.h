#pragma once

namespace platform {

/// The end of this process.
class ProcessExit {
 public:
  virtual ~ProcessExit() = default;

  /// Ends the process at once with this status, from any thread: neither the application's delegate nor any destructor
  /// is run. Does not return; a caller has nothing left to do all the same, so that a stand-in may.
  virtual void exitImmediately(int status) = 0;
};

}  // namespace platform
