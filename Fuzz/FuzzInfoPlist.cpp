#include "CodeSignature/StaticCode.h"
#include "Environment/OrvikApp.h"
#include "FuzzSupport.h"
#include "Platform/PropertyList.h"
#include "Posix/MainBundle.h"
#include "Posix/PosixFileManager.h"
#include "Posix/PosixProcessInfo.h"
#include "Posix/PosixWorkspace.h"

namespace {

using namespace platform;
using namespace platform::posix;

/// A stand-in Mac with one application.
struct Mac {
  Mac() {
    std::filesystem::create_directories(contents + "/MacOS");
    fuzz::write(contents + "/MacOS/Some", "code");
  }

  fuzz::Folder folder;
  std::string application = folder.path() + "/home/Applications/Some.app";
  std::string contents = application + "/Contents";
  Machine machine{
      .sysroot = Sysroot(folder.path()), .home = folder.path() + "/home", .temporaryDirectory = folder.path() + "/tmp"};
  PosixFileManager fileManager{machine.sysroot};
  PosixProcessInfo processInfo{machine.sysroot};
  HomeSearchPaths searchPaths{machine.home, machine.temporaryDirectory};
  PosixWorkspace workspace{machine};
};

std::optional<std::string> textIn(const std::optional<PropertyList>& list, std::string_view key) {
  const PropertyList* value = list ? (*list)[key] : nullptr;
  return value == nullptr || value->string() == nullptr ? std::nullopt : std::optional(*value->string());
}

}  // namespace

/// The Info.plist of a registered application, as workspace, state provider, main bundle and code signature read it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace OrvikApp = corvane::OrvikApp;
  static const Mac mac;
  fuzz::write(mac.contents + "/Info.plist", fuzz::textOf(data, size));
  const OrvikApp::StateProviderImpl provider(corvane::EmergencyUpdateServiceLogger("Fuzz"), mac.fileManager,
                                             mac.workspace, mac.searchPaths, mac.processInfo);
  const auto parsed = PropertyList::parse(fuzz::textOf(data, size));
  const auto list = parsed ? std::optional(*parsed) : std::nullopt;
  const bool isOrvik = textIn(list, "CFBundleIdentifier") == std::string(OrvikApp::bundleIdentifier);
  fuzz::require(mac.workspace.urlsForApplications(OrvikApp::bundleIdentifier).size() == (isOrvik ? 1 : 0));
  fuzz::require(provider.bundleVersion() == (isOrvik ? textIn(list, "CFBundleVersion") : std::nullopt));
  const Bundle bundle = makeBundle(mac.contents + "/MacOS/Some", mac.machine.sysroot);
  fuzz::require(bundle.bundleIdentifier.value_or("") == textIn(list, "CFBundleIdentifier").value_or(""));
  const auto code = codesignature::StaticCode::open(mac.application);
  fuzz::require(!code || !(*code)->check(nullptr, {}));
  return 0;
}
