#include "Posix/DistributedNotificationPoster.h"
#include "Posix/Machine.h"

#include <csignal>

/// A main application to rehearse with: it announces that it has launched, waits to be asked to quit, announces that it
/// terminates, and does nothing else.
int main() {
  sigset_t quitSignals;
  sigemptyset(&quitSignals);
  sigaddset(&quitSignals, SIGTERM);
  sigaddset(&quitSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &quitSignals, nullptr);

  const std::string temporaryDirectory = platform::posix::Machine::fromEnvironment().temporaryDirectory;
  platform::posix::postDistributedNotification(temporaryDirectory,
                                               "com.corvane.ProjectOrvik.applicationDidFinishLaunching");
  int received = 0;
  sigwait(&quitSignals, &received);
  platform::posix::postDistributedNotification(temporaryDirectory, "com.corvane.ProjectOrvik.applicationWillTerminate");
  return 0;
}
