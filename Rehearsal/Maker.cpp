#include "Rehearsal/Maker.h"

#include "Rehearsal/SigningIdentity.h"

namespace rehearsal {
namespace {

namespace fs = std::filesystem;

/// Bytes that no compression makes shorter, the same every time.
std::string incompressible(std::size_t count) {
  std::string bytes(count, '\0');
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = (state * 1664525U) + 1013904223U;
    byte = static_cast<char>(state >> 24U);
  }
  return bytes;
}

}  // namespace

Maker::Maker(const Scene& scene, fs::path orvik)
    : scene_(scene), orvik_(std::move(orvik)), folder_(scene.mac().folder() / "maker") {
  const auto identity = makeSigningIdentity();
  if (!identity) throw Failure("no signing identity: " + identity.error());
  fs::create_directories(folder_);
  if (const auto written = identity->writeInto(folder_.string()); !written) throw Failure(written.error());
  writeFile(scene.mac().sysroot() / "System/Library/Security/anchors.pem", identity->anchors);
}

fs::path Maker::pack(const Release& release) const {
  const fs::path volume = folder_ / "volume";
  fs::remove_all(volume);
  fs::create_directories(volume);
  fs::create_directory_symlink("/Applications", volume / "Applications");
  if (release.hasApp) {
    const fs::path app = StandInMac::installApplication(orvik_, volume, release.version);
    // A file that may not be written, under a name that an HFS+ volume gives back in other bytes.
    const fs::path readMe = app / "Contents/Resources/Über Orvik.txt";
    writeFile(readMe, "Orvik\n");
    fs::permissions(readMe, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    if (release.ballastBytes > 0) writeFile(app / "Contents/Resources/Ballast", incompressible(release.ballastBytes));
    if (release.signsApp) sign(app);
  }
  fs::path image = folder_ / "Orvik.dmg";
  scene_.runTool("/usr/bin/hdiutil", {"create", "-srcfolder", volume.string(), "-volname", "Orvik", "-format", "UDZO",
                                      "-ov", image.string()});
  if (release.signsImage) sign(image);
  return image;
}

void Maker::sign(const fs::path& code) const {
  scene_.runTool("/usr/bin/codesign", {"--sign", (folder_ / "identity.pem").string(), code.string()});
}

}  // namespace rehearsal
