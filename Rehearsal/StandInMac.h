#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace rehearsal {

/// A stand-in Mac in a folder of its own: sysroot, home and temporary directory. Independent of every other; removed
/// with everything in it when the object goes, unless kept. Throws std::filesystem::filesystem_error.
class StandInMac {
 public:
  /// Below the machine's temporary directory. The user's name is that of the home folder too.
  explicit StandInMac(std::string userName = "home");
  StandInMac(const StandInMac&) = delete;
  StandInMac& operator=(const StandInMac&) = delete;
  ~StandInMac();

  void keep() { kept_ = true; }

  [[nodiscard]] std::filesystem::path folder() const { return folder_; }
  [[nodiscard]] std::filesystem::path sysroot() const { return folder_ / "sysroot"; }
  [[nodiscard]] std::filesystem::path home() const { return folder_ / userName_; }
  [[nodiscard]] std::filesystem::path temporaryDirectory() const { return folder_ / "tmp"; }
  [[nodiscard]] std::filesystem::path systemLog() const { return home() / "Library/Logs/system.ndjson"; }

  /// The three variables by which a program finds this Mac, and the user's name, as "NAME=value".
  [[nodiscard]] std::vector<std::string> environment() const;

  /// Copies a prepared sysroot (the system tools, SystemVersion.plist) into this Mac's.
  void addSysroot(const std::filesystem::path& prepared) const;
  void setOperatingSystemVersion(const std::string& version) const;
  void setMachineName(const std::string& name) const;
  /// Trusts these certificates for TLS, and no others.
  void trust(const std::string& certificatesPEM) const;
  /// Sends connections for host:443 to a port on loopback.
  void connect(const std::string& host, unsigned port) const;

  /// Kills every program that finds this Mac by its environment, but this one, until there is none.
  void endPrograms() const;

  /// Copies an application into a folder and sets its CFBundleVersion. Returns where it is now.
  static std::filesystem::path installApplication(const std::filesystem::path& bundle,
                                                  const std::filesystem::path& folder, const std::string& version);

 private:
  std::string userName_;
  std::filesystem::path folder_;
  bool kept_ = false;
};

/// Writes a whole file, making its folder. Throws std::runtime_error.
void writeFile(const std::filesystem::path& path, const std::string& bytes);
/// The whole of a file. Throws std::runtime_error.
std::string readFile(const std::filesystem::path& path);

}  // namespace rehearsal
