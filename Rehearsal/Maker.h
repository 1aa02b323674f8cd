#pragma once

#include "Rehearsal/Scene.h"

#include <filesystem>
#include <string>

namespace rehearsal {

/// The maker of the main application: signs with a Developer ID of an authority of its own, which the scene's Mac takes
/// for the platform vendor's.
class Maker {
 public:
  /// Works in a folder of its own beside the Mac.
  Maker(const Scene& scene, std::filesystem::path orvik);

  /// What a disk image is to hold and how it is signed; the defaults are as it should be.
  struct Release {
    std::string version = "1.80.0";
    bool hasApp = true;
    bool signsApp = true;
    bool signsImage = true;
    std::size_t ballastBytes = 0;  // of a resource that does not compress
  };
  /// Packs a new disk image with a volume that holds the application, of which one resource is awkward (read-only, with
  /// a name beyond ASCII), and a link to /Applications.
  [[nodiscard]] std::filesystem::path pack(const Release& release) const;

 private:
  void sign(const std::filesystem::path& code) const;

  const Scene& scene_;
  std::filesystem::path orvik_;
  std::filesystem::path folder_;
};

}  // namespace rehearsal
