#pragma once

#include "Platform/Application.h"
#include "Platform/BackgroundTasks.h"
#include "Platform/Bundle.h"
#include "Platform/ChildProcess.h"
#include "Platform/Clock.h"
#include "Platform/DistributedNotificationCenter.h"
#include "Platform/FileManager.h"
#include "Platform/ProcessExit.h"
#include "Platform/ProcessInfo.h"
#include "Platform/RunLoop.h"
#include "Platform/SecCode.h"
#include "Platform/SerialQueue.h"
#include "Platform/ServiceManagement.h"
#include "Platform/SystemLog.h"
#include "Platform/URLContents.h"
#include "Platform/URLSession.h"
#include "Platform/UserDefaults.h"
#include "Platform/Workspace.h"

#include <memory>

namespace platform {

/// The platform's process-wide facilities, gathered for the composition root: one of each, none of them owned.
/// Components are handed the single facility they use, never all of them.
struct Facilities {
  const Clock& clock;
  RunLoop& mainRunLoop;
  BackgroundTasks& backgroundTasks;
  SerialQueues& serialQueues;
  const Bundle& mainBundle;
  const ProcessInfo& processInfo;
  UserDefaultsDomains& userDefaults;
  FileManager& fileManager;
  const SearchPaths& searchPaths;
  URLContents& urlContents;
  URLSessions& urlSessions;
  const Workspace& workspace;
  ChildProcessLauncher& childProcesses;
  const CodeSecurity& codeSecurity;
  const ServiceManagement& serviceManagement;
  DistributedNotificationCenter& distributedNotificationCenter;
  ProcessExit& processExit;
  SystemLog& systemLog;
};

/// The facilities of the machine this process runs on, and its shared application.
class Host {
 public:
  virtual ~Host() = default;
  virtual Application& sharedApplication() = 0;
  virtual const Facilities& facilities() = 0;
};

/// Makes the host; once per process, on the main thread, before any other thread runs.
std::unique_ptr<Host> makeHost();

}  // namespace platform
