#include "CodeSignature/PosixCodeSecurity.h"
#include "Platform/Host.h"
#include "Posix/CurlURLContents.h"
#include "Posix/CurlURLSession.h"
#include "Posix/DatagramNotificationCenter.h"
#include "Posix/FileUserDefaults.h"
#include "Posix/LaunchdJobs.h"
#include "Posix/MainBundle.h"
#include "Posix/NdjsonSystemLog.h"
#include "Posix/PosixApplication.h"
#include "Posix/PosixChildProcess.h"
#include "Posix/PosixFileManager.h"
#include "Posix/PosixProcessExit.h"
#include "Posix/PosixProcessInfo.h"
#include "Posix/PosixWorkspace.h"
#include "Posix/SystemClock.h"
#include "Posix/ThreadSerialQueue.h"
#include "Posix/ThreadTasks.h"

#include <csignal>

#include <curl/curl.h>

namespace platform {
namespace {

using namespace posix;

/// The domain of the standard user defaults: the identifier, or without one the name the process runs under.
std::string standardDomain(const Bundle& bundle) {
  return bundle.bundleIdentifier.value_or(program_invocation_short_name);
}

codesignature::PosixCodeSecurity makeCodeSecurity(const Sysroot& sysroot) {
  const auto machinePath = [sysroot](std::string_view macPath) { return sysroot.machinePath(macPath); };
  return {machinePath, codesignature::PosixCodeSecurity::installedAnchors(machinePath)};
}

class PosixHost final : public Host {
 public:
  PosixHost() = default;

  Application& sharedApplication() override { return application_; }
  const Facilities& facilities() override { return facilities_; }

 private:
  Machine machine_ = Machine::fromEnvironment();
  SystemClock clock_;
  PosixApplication application_{clock_};
  ThreadTasks backgroundTasks_;
  ThreadSerialQueues serialQueues_;
  Bundle mainBundle_ = makeMainBundle(machine_.sysroot);
  PosixProcessInfo processInfo_{machine_.sysroot};
  FileUserDefaultsDomains userDefaults_{machine_, standardDomain(mainBundle_)};
  PosixFileManager fileManager_{machine_.sysroot};
  HomeSearchPaths searchPaths_{machine_.home, machine_.temporaryDirectory};
  CurlURLContents urlContents_{machine_.sysroot, {}};
  CurlURLSessions urlSessions_{machine_};
  PosixWorkspace workspace_{machine_};
  PosixChildProcessLauncher childProcesses_{machine_.sysroot};
  codesignature::PosixCodeSecurity codeSecurity_ = makeCodeSecurity(machine_.sysroot);
  LaunchdJobs serviceManagement_{machine_.temporaryDirectory};
  DatagramNotificationCenter distributedNotificationCenter_{application_.io(), machine_.temporaryDirectory};
  PosixProcessExit processExit_;
  NdjsonSystemLog systemLog_{machine_.home};
  Facilities facilities_{.clock = clock_,
                         .mainRunLoop = application_.mainRunLoop(),
                         .backgroundTasks = backgroundTasks_,
                         .serialQueues = serialQueues_,
                         .mainBundle = mainBundle_,
                         .processInfo = processInfo_,
                         .userDefaults = userDefaults_,
                         .fileManager = fileManager_,
                         .searchPaths = searchPaths_,
                         .urlContents = urlContents_,
                         .urlSessions = urlSessions_,
                         .workspace = workspace_,
                         .childProcesses = childProcesses_,
                         .codeSecurity = codeSecurity_,
                         .serviceManagement = serviceManagement_,
                         .distributedNotificationCenter = distributedNotificationCenter_,
                         .processExit = processExit_,
                         .systemLog = systemLog_};
};

}  // namespace

std::unique_ptr<Host> makeHost() {
  // A peer that closes its end is an error of the write, not the end of this process.
  std::signal(SIGPIPE, SIG_IGN);
  // Whoever started this process may have ignored it, and then no child's status could be had.
  std::signal(SIGCHLD, SIG_DFL);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  return std::make_unique<PosixHost>();
}

}  // namespace platform
