#include "Rehearsal/StandInMac.h"

#include "Platform/PropertyList.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>
#include <unistd.h>

namespace rehearsal {
namespace {

namespace fs = std::filesystem;
using platform::PropertyList;

fs::path newFolder() {
  std::string name = (fs::temp_directory_path() / "stand-in-mac.XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no folder to be had for a stand-in Mac");
  return name;
}

void writeDictionary(const fs::path& path, PropertyList::Dictionary entries) {
  writeFile(path, PropertyList(std::move(entries)).serialized(PropertyList::Format::xml));
}

}  // namespace

void writeFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << bytes;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

StandInMac::StandInMac(std::string userName) : userName_(std::move(userName)), folder_(newFolder()) {
  for (const fs::path& part : {sysroot() / "Applications", sysroot() / "Volumes", home() / "Library/Logs",
                               home() / "Library/LaunchAgents", temporaryDirectory()}) {
    fs::create_directories(part);
  }
}

StandInMac::~StandInMac() {
  if (kept_) return;
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

std::vector<std::string> StandInMac::environment() const {
  return {"CORVANE_SYSROOT=" + sysroot().string(), "HOME=" + home().string(), "TMPDIR=" + temporaryDirectory().string(),
          "USER=" + userName_, "LOGNAME=" + userName_};
}

void StandInMac::addSysroot(const fs::path& prepared) const {
  fs::copy(prepared, sysroot(),
           fs::copy_options::recursive | fs::copy_options::copy_symlinks | fs::copy_options::overwrite_existing);
}

void StandInMac::setOperatingSystemVersion(const std::string& version) const {
  writeDictionary(sysroot() / "System/Library/CoreServices/SystemVersion.plist", {{"ProductVersion", version}});
}

void StandInMac::setMachineName(const std::string& name) const {
  writeFile(sysroot() / "System/Library/CoreServices/machine", name + "\n");
}

void StandInMac::trust(const std::string& certificatesPEM) const {
  writeFile(sysroot() / "etc/ssl/cert.pem", certificatesPEM);
}

void StandInMac::connect(const std::string& host, unsigned port) const {
  const fs::path file = sysroot() / "etc/connect-to";
  const std::string before = fs::exists(file) ? readFile(file) : "";
  writeFile(file, before + fmt::format("{}:443:127.0.0.1:{}\n", host, port));
}

void StandInMac::endPrograms() const {
  // Of a process that has ended, though nobody has noticed yet, the environment is empty.
  const std::string mark = environment().front() + '\0';
  const auto killAll = [&] {
    bool any = false;
    for (const auto& entry : fs::directory_iterator("/proc")) {
      const std::string name = entry.path().filename();
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      const pid_t process = std::stoi(name);
      if (process == getpid()) continue;
      std::ifstream file(entry.path() / "environ", std::ios::binary);
      const std::string variables{std::istreambuf_iterator<char>(file), {}};
      if (variables.find(mark) != std::string::npos) any = kill(process, SIGKILL) == 0 || any;
    }
    return any;
  };
  while (killAll()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

fs::path StandInMac::installApplication(const fs::path& bundle, const fs::path& folder, const std::string& version) {
  const fs::path installed = folder / bundle.filename();
  fs::create_directories(folder);
  fs::copy(bundle, installed, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  const fs::path information = installed / "Contents/Info.plist";
  const auto plist = PropertyList::parse(readFile(information));
  if (!plist || plist->dictionary() == nullptr) throw std::runtime_error("no property list: " + information.string());
  PropertyList::Dictionary entries = *plist->dictionary();
  entries.insert_or_assign("CFBundleVersion", version);
  writeDictionary(information, std::move(entries));
  return installed;
}

}  // namespace rehearsal
