#pragma once

#include "Rehearsal/HTTPSServer.h"
#include "Rehearsal/Scene.h"

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace campaign {

inline constexpr const char* listHost = CORVANE_DOWNLOAD_HOST;
inline constexpr const char* imageHost = "images.corvane.example";
inline constexpr const char* logHost = CORVANE_LOG_HOST;

/// What lies in place of the main application.
enum class Application { old, updated, partial, gone };
const char* name(Application application);

/// What an agent has left on its Mac.
struct Leftovers {
  std::size_t sessionFiles = 0;  // of a URL session, in the temporary directory
  std::size_t folders = 0;       // the installer's, of images and of copies of volumes
  std::size_t unpackedApplications = 0;
  std::size_t mounts = 0;
  [[nodiscard]] std::string text() const;
  bool operator==(const Leftovers&) const = default;
};

/// A stand-in Mac for many trials, each of which finds it as it was in the beginning: Orvik 1.79.3 installed, and a
/// list that has whatever version replaced by 1.80.0 from a signed image. Everything runs as an ordinary user.
class Ground {
 public:
  explicit Ground(const std::filesystem::path& prefix, std::size_t ballastBytes = std::size_t{512} << 10U);

  /// Ends whatever runs on it and puts everything back. Throws std::filesystem::filesystem_error.
  void reset();

  [[nodiscard]] const rehearsal::Scene& scene() const { return scene_; }
  [[nodiscard]] const rehearsal::StandInMac& mac() const { return scene_.mac(); }
  [[nodiscard]] const std::filesystem::path& image() const { return image_; }
  [[nodiscard]] const rehearsal::CertificateAuthority& authority() const { return authority_; }
  [[nodiscard]] rehearsal::Scene::Command agent() const { return scene_.command(scene_.agentExecutable(), {}); }
  [[nodiscard]] rehearsal::ChildProgram startAgent() const;
  /// By a shell that stays, with the executable as its "$0". Returns when so many run; throws rehearsal::Failure when
  /// they do not.
  void startOrvik(const std::string& script = R"("$0" & wait)", std::size_t count = 1);
  /// Whosever they are.
  [[nodiscard]] std::vector<pid_t> runningOrvik() const;
  /// Ends whatever main application runs.
  void endOrvik();

  /// Leads a host's port to one on loopback, until the next reset; 0 leads it nowhere.
  void route(const std::string& host, unsigned port, unsigned of = 443);
  /// The list of this trial, until the next reset.
  void setList(const std::string& list) { list_ = list; }
  [[nodiscard]] const std::string& list() const { return list_; }
  /// What happens, until the next reset, when the image is first asked for; it is sent when that is over.
  void beforeImage(std::function<void()> happens) { beforeImage_ = std::move(happens); }

  [[nodiscard]] Application application() const;
  /// The version of what lies there; absent when it cannot be told.
  [[nodiscard]] std::optional<std::string> applicationVersion() const;
  [[nodiscard]] Leftovers leftovers() const;
  /// Every message of the system log so far.
  [[nodiscard]] std::vector<std::string> records() const;
  /// Waits until an agent's check has ended with one of the records that end one, and its clean-up too: that record, or
  /// nothing when it has not by then, or when the agent has ended.
  std::string waitForEndOfCheck(rehearsal::ChildProgram& agent, std::chrono::seconds limit) const;

 private:
  [[nodiscard]] std::string contents(const std::filesystem::path& bundle) const;

  rehearsal::Transcript transcript_{nullptr};
  rehearsal::Scene scene_;
  rehearsal::CertificateAuthority authority_;
  std::filesystem::path image_;
  std::filesystem::path old_;  // a copy of what is installed in the beginning
  std::string oldContents_;
  std::string updatedContents_;
  std::string list_;
  std::function<void()> beforeImage_;
  std::optional<rehearsal::ChildProgram> orvik_;
  std::map<std::string, unsigned> routes_;  // by "host:port"
  rehearsal::Credentials listCredentials_ = authority_.issue(listHost);
  rehearsal::Credentials imageCredentials_ = authority_.issue(imageHost);
  std::unique_ptr<rehearsal::HTTPSServer> listServer_;
  std::unique_ptr<rehearsal::HTTPSServer> imageServer_;
};

/// Whether a record is one of those that end a check.
bool endsCheck(const std::string& message);

}  // namespace campaign
