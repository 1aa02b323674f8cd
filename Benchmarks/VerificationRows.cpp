#include "Benchmarks/Rows.h"
#include "CodeSigning/CodeSigner.h"
#include "CodeSigning/Identity.h"
#include "Installer/EmergencyUpdateAppVerifier.h"
#include "Posix/FileTree.h"
#include "Rehearsal/SigningIdentity.h"
#include "Rehearsal/StandInMac.h"

#include <fstream>
#include <stdexcept>

#include <fmt/format.h>

namespace benchmarks {
namespace {

namespace fs = std::filesystem;
using platform::codesigning::Identity;
using platform::codesigning::SigningRequest;

constexpr std::size_t imageMegabytes = 500;

void require(bool succeeded, const std::string& what) {
  if (!succeeded) throw std::runtime_error(what + " failed");
}

/// A Mac with the maker's code on it, and nothing that runs.
class MakersMac {
 public:
  explicit MakersMac(const Plan& plan) {
    mac_.addSysroot(plan.prefix / "sysroot");
    const auto made = rehearsal::makeSigningIdentity();
    require(made.has_value(), "making an identity");
    rehearsal::writeFile(mac_.sysroot() / "System/Library/Security/anchors.pem", made->anchors);
    identity_.emplace(std::move(Identity::fromPEM(made->identity).value()));
  }

  [[nodiscard]] fs::path folder() const { return mac_.folder(); }

  void sign(const fs::path& code, SigningRequest request = {}) const {
    request.identity = &*identity_;
    const auto done = platform::codesigning::signCode(code, request);
    require(done.has_value(), "signing");
  }

  /// The seconds of a process that holds code against the requirement that the agent holds it against.
  [[nodiscard]] double verify(const fs::path& code) const {
    return run({mac_.sysroot() / "usr/bin/codesign", "--verify",
                "-R=" + corvane::EmergencyUpdateAppVerifier::requirementText(std::nullopt), code},
               mac_.environment());
  }

 private:
  rehearsal::StandInMac mac_;
  std::optional<Identity> identity_;
};

/// A file that ends like a disk image; what is before the trailer takes no part in verifying.
fs::path makeImage(const MakersMac& mac, std::size_t bytes) {
  constexpr std::size_t trailerBytes = 512;
  fs::path image = mac.folder() / "Orvik.dmg";
  writeBallast(image, bytes);
  std::string trailer{"koly\0\0\0\4", 8};
  trailer.resize(trailerBytes);
  std::ofstream(image, std::ios::binary | std::ios::app) << trailer;
  return image;
}

void compareWithDigest(const Plan& plan, Table& table, const SigningRequest& request, const std::string& pages,
                       double mark) {
  const MakersMac mac(plan);
  const fs::path image = makeImage(mac, plan.bytes(imageMegabytes));
  mac.sign(image, request);
  table.compare(
      fmt::format("verifying a signed image of {}, {}", size(static_cast<double>(fs::file_size(image))), pages),
      "openssl dgst -sha256",
      best(
          plan.times(9), [&] { return mac.verify(image); }, [&] { return run({"openssl", "dgst", "-sha256", image}); }),
      mark);
}

/// An application of many files, most of them small, a few large.
fs::path makeBundle(const MakersMac& mac, std::size_t files, std::size_t bytes) {
  fs::path bundle = mac.folder() / "Orvik.app";
  rehearsal::writeFile(bundle / "Contents/Info.plist",
                       "<plist><dict><key>CFBundleIdentifier</key><string>com.corvane.ProjectOrvik</string>"
                       "<key>CFBundleExecutable</key><string>Orvik</string></dict></plist>");
  writeBallast(bundle / "Contents/MacOS/Orvik", bytes / 8);
  writeBallast(bundle / "Contents/Resources/Framework", bytes / 2);
  const std::size_t left = bytes - bytes / 8 - bytes / 2;
  for (std::size_t i = 0; i < files; ++i) {
    writeBallast(bundle / fmt::format("Contents/Resources/{}/{}", i / 100, i), left / files);
  }
  mac.sign(bundle);
  return bundle;
}

}  // namespace

void imageRow(const Plan& plan, Table& table) {
  compareWithDigest(plan, table, {}, "one page", 1.1);
}

void pagesRow(const Plan& plan, Table& table) {
  compareWithDigest(plan, table, {.pageShift = 12}, "pages of 4 KiB", 0.65);
}

void bundleRow(const Plan& plan, Table& table) {
  constexpr std::size_t bundleFiles = 4000;
  constexpr std::size_t bundleMegabytes = 800;
  const MakersMac mac(plan);
  const fs::path bundle = makeBundle(mac, bundleFiles, plan.bytes(bundleMegabytes));
  const fs::path installed = mac.folder() / "installed";
  std::vector<std::string> digests{"sha256sum"};
  std::vector<std::string> byOpenssl{"openssl", "dgst", "-sha256"};
  double bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(bundle)) {
    if (!entry.is_regular_file()) continue;
    digests.push_back(entry.path());
    byOpenssl.push_back(entry.path());
    bytes += static_cast<double>(entry.file_size());
  }
  platform::posix::copyTree(bundle, installed);
  const auto subject = [&] {
    return mac.verify(bundle) + timed([&] {
             require(platform::posix::removeTree(installed) == 0, "removing");
             require(platform::posix::copyTree(bundle, installed) == 0, "copying");
           });
  };
  const auto reference = [&] {
    return run(digests) + run({"rm", "-rf", installed}) + run({"cp", "-a", bundle, installed});
  };
  table.compare(fmt::format("verifying and replacing a bundle of {} files, {}", bundleFiles, size(bytes)),
                "sha256sum, rm -rf, cp -a", best(plan.times(4), subject, reference), 1.1);
  const Times alone = best(plan.times(4), [&] { return run(byOpenssl); }, [&] { return run(digests); });
  table.note("the digests of that reference alone", fmt::format("sha256sum: {}, openssl dgst -sha256: {}",
                                                                duration(alone.reference), duration(alone.subject)));
}

}  // namespace benchmarks
