#include "hdiutil/Hdiutil.h"

#include "Support/ErrorText.h"
#include "hdiutil/AttachImage.h"
#include "hdiutil/CreateImage.h"
#include "hdiutil/HfsVolumeStream.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace tools {
namespace {

using platform::posix::Machine;

constexpr int busyStatus = 16;
constexpr std::string_view imageExtension = ".dmg";

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

/// The file of the machine that an argument names, absolute.
std::string fileNamed(const Machine& machine, const std::string& path) {
  return std::filesystem::absolute(machine.sysroot.machinePath(withoutTrailingSlashes(path)));
}

int failed(std::string_view operation, std::string_view reason) {
  fmt::print(stderr, "hdiutil: {} failed - {}\n", operation, reason);
  return 1;
}

/// As much of a name as the volume can bear, cut between two characters of UTF-8.
std::string fittingName(std::string name) {
  if (name.size() <= HfsVolumeStream::longestName) return name;
  std::size_t length = HfsVolumeStream::longestName;
  while ((static_cast<unsigned char>(name[length]) & 0xC0U) == 0x80U) --length;
  name.resize(length);
  fmt::print(stderr, "hdiutil: create: the volume name is too long and becomes \"{}\"\n", name);
  return name;
}

struct Attach {
  ImageAttachment attachment;
  bool isUnverified = false;
  bool ignored = false;

  CLI::App* describe(CLI::App& app) {
    CLI::App* command = app.add_subcommand("attach", "Attach a disk image: IMAGE -mountpoint PATH");
    command->add_option("image", attachment.image)->required();
    command->add_option("--mountpoint", attachment.mountPoint)->required();
    command->add_flag("--noverify", isUnverified, "Do not check the image's checksums");
    command->add_flag("--nobrowse,--noautoopen", ignored, "Nothing to do here: no Finder looks on");
    return command;
  }

  int run(const Machine& machine) {
    const std::string mountPoint = withoutTrailingSlashes(attachment.mountPoint);
    attachment = {.image = fileNamed(machine, attachment.image),
                  .mountPoint = fileNamed(machine, mountPoint),
                  .verify = !isUnverified};
    const auto kind = attachImage(attachment, AttachedVolumes(machine));
    if (!kind) return failed("attach", kind.error());
    fmt::print("\t{}\t{}\n", *kind, mountPoint);  // the columns of the device table; there is no device
    return 0;
  }
};

struct Detach {
  std::string mountPoint;
  bool ignored = false;

  CLI::App* describe(CLI::App& app) {
    CLI::App* command = app.add_subcommand("detach", "Detach a disk image: PATH [-force]");
    command->add_option("mountpoint", mountPoint)->required();
    command->add_flag("--force", ignored, "Nothing to do here: open files do not hold a volume");
    return command;
  }

  [[nodiscard]] int run(const Machine& machine) const {
    const int failure = detachImage(fileNamed(machine, mountPoint), AttachedVolumes(machine));
    if (failure == EBUSY) {
      fmt::print(stderr, "hdiutil: couldn't unmount \"{}\" - {}\n", mountPoint, errorText(EBUSY));
      return busyStatus;
    }
    if (failure != 0) return failed("detach", errorText(failure));
    fmt::print("\"{}\" ejected.\n", withoutTrailingSlashes(mountPoint));
    return 0;
  }
};

struct Create {
  ImageCreation creation;
  std::string format = "UDZO";

  CLI::App* describe(CLI::App& app) {
    CLI::App* command = app.add_subcommand("create", "Make a disk image: -srcfolder DIR -volname NAME OUT.dmg");
    command->add_option("--srcfolder", creation.sourceFolder)->required();
    command->add_option("--volname", creation.volumeName);
    command->add_option("--format", format, "The only one is UDZO")->check(CLI::IsMember({"UDZO"}));
    command->add_flag("--ov", creation.overwrite, "Replace an image that exists");
    command->add_option("image", creation.output)->required();
    return command;
  }

  int run(const Machine& machine) {
    creation.sourceFolder = fileNamed(machine, creation.sourceFolder);
    creation.output = fileNamed(machine, creation.output);
    if (!creation.output.ends_with(imageExtension)) creation.output += imageExtension;
    if (creation.volumeName.empty()) creation.volumeName = std::filesystem::path(creation.sourceFolder).filename();
    creation.volumeName = fittingName(std::move(creation.volumeName));
    if (const auto done = createImage(creation); !done) return failed("create", done.error());
    fmt::print("created: {}\n", machine.sysroot.macPath(creation.output));
    return 0;
  }
};

/// The real tool's long options have one hyphen, CLI11's two.
std::vector<std::string> withTwoHyphens(std::vector<std::string> words) {
  static constexpr std::string_view options[] = {"-mountpoint", "-noverify", "-nobrowse", "-noautoopen", "-force",
                                                 "-srcfolder",  "-volname",  "-format",   "-ov"};
  for (std::string& word : words) {
    if (std::ranges::find(options, word) != std::end(options)) word.insert(0, 1, '-');
  }
  return words;
}

}  // namespace

int hdiutil(const Machine& machine, std::vector<std::string> words) {
  CLI::App app("Manipulate disk images", "hdiutil");
  app.require_subcommand(1);
  Attach attach;
  Detach detach;
  Create create;
  const CLI::App* attaching = attach.describe(app);
  const CLI::App* detaching = detach.describe(app);
  create.describe(app);
  try {
    words = withTwoHyphens(std::move(words));
    std::ranges::reverse(words);  // as CLI11 takes a vector
    app.parse(words);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  if (attaching->parsed()) return attach.run(machine);
  return detaching->parsed() ? detach.run(machine) : create.run(machine);
}

}  // namespace tools
