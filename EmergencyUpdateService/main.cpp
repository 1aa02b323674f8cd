#include "AppDelegate.h"
#include "Platform/Host.h"

/// The agent takes no arguments: what it does follows from where it is installed.
int main() {
  const auto host = platform::makeHost();
  corvane::AppDelegate delegate(host->facilities());
  platform::Application& application = host->sharedApplication();
  application.setDelegate(delegate);
  application.run();
  return 0;
}
