#include "hdiutil/VolumeImage.h"

#include "Support/ChildProgram.h"
#include "Support/ErrorText.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <ranges>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

namespace fs = std::filesystem;
using platform::posix::FileDescriptor;
using Link = VolumeListing::Link;

/// The image is 7-Zip's standard input, opened anew through this name: no name of a file is taken for a switch or
/// pattern.
constexpr const char* imagePath = "/proc/self/fd/0";

constexpr std::size_t linksAtOnce = 500;

/// The folder that an entry lies in, reached without following a link.
FileDescriptor folderOf(const std::string& root, std::string_view path) {
  FileDescriptor folder(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (auto slash = path.find('/'); folder && slash != std::string_view::npos; slash = path.find('/')) {
    const std::string name(path.substr(0, slash));
    folder = FileDescriptor(openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    path.remove_prefix(slash + 1);
  }
  return folder;
}

/// Lets its owner write to a folder for a while, whatever permissions it has in the image.
class Writable {
 public:
  explicit Writable(const FileDescriptor& folder) : path_("/proc/self/fd/" + std::to_string(folder.get())) {
    struct stat status{};
    if (fstat(folder.get(), &status) != 0) return;
    mode_ = status.st_mode & 0777;
    chmod(path_.c_str(), mode_ | S_IRWXU);
  }
  Writable(const Writable&) = delete;
  Writable& operator=(const Writable&) = delete;
  ~Writable() { chmod(path_.c_str(), mode_); }

 private:
  std::string path_;
  mode_t mode_ = 0755;
};

/// Whether the image is of the format that has checksums; a bare volume has none.
bool hasUdifTrailer(const FileDescriptor& image) {
  constexpr off_t trailerBytes = 512;
  std::array<char, 4> magic{};
  struct stat status{};
  return fstat(image.get(), &status) == 0 && status.st_size >= trailerBytes &&
         pread(image.get(), magic.data(), magic.size(), status.st_size - trailerBytes) == 4 &&
         std::string_view(magic.data(), magic.size()) == "koly";
}

std::string nameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

bool makeLink(const std::string& root, const Link& link) {
  const FileDescriptor folder = folderOf(root, link.path);
  if (!folder || link.text.empty() || link.text.find('\0') != std::string::npos) return false;
  const Writable writable(folder);
  return symlinkat(link.text.c_str(), folder.get(), nameOf(link.path).c_str()) == 0;
}

/// 7-Zip leaves an empty file in the place of what it cannot make.
void removeSpecialFile(const std::string& root, const std::string& path) {
  const FileDescriptor folder = folderOf(root, path);
  if (!folder) return;
  const Writable writable(folder);
  unlinkat(folder.get(), nameOf(path).c_str(), 0);
}

/// A mounted image changes nobody's identity: its files lose the bits that would.
bool dropIdentityBits(const std::string& folder) {
  std::error_code error;
  for (fs::recursive_directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    const fs::file_status status = entry->symlink_status(error);
    if (error || (!fs::is_regular_file(status) && !fs::is_directory(status))) return false;
    if ((status.permissions() & ~fs::perms::all) != fs::perms::none) {
      fs::permissions(entry->path(), status.permissions() & fs::perms::all, error);
    }
  }
  return !error;
}

}  // namespace

std::expected<VolumeImage, std::string> VolumeImage::open(const std::string& machinePath) {
  FileDescriptor file(::open(machinePath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return std::unexpected(errorText(errno));
  struct stat status{};
  if (fstat(file.get(), &status) != 0) return std::unexpected(errorText(errno));
  if (!S_ISREG(status.st_mode)) return std::unexpected("image not recognized");
  VolumeImage image(std::move(file));
  // A hybrid image counts for the HFS+ volume that it holds beside the other one.
  for (const char* format : {"", "-thfs.dmg", "-thfs"}) {
    const int exit = image.list(format);
    if (exit == notFoundStatus) return std::unexpected("7zz is not installed");
    if (exit <= 1 && image.listing_.isMountable()) break;
  }
  if (!image.listing_.isMountable()) return std::unexpected("image not recognized");
  if (!image.listing_.isSafe()) return std::unexpected("no mountable file systems");
  return image;
}

std::vector<std::string> VolumeImage::command(std::vector<std::string> words) const {
  words.insert(words.begin(), "7zz");
  if (!format_.empty()) words.push_back(format_);
  words.insert(words.end(), {"-y", "-sccUTF-8", "-spd", "-ssc", imagePath});
  return words;
}

int VolumeImage::list(const std::string& format) {
  format_ = format;
  listing_ = {};
  auto program = ChildProgram::start({.words = command({"l", "-slt"}), .input = image_.get()});
  if (!program) return notFoundStatus;
  program->forEachLine([&](std::string_view line) { listing_.add(line); });
  listing_.finish();
  return program->finish();
}

bool VolumeImage::hasIntactChecksums() const {
  if (!hasUdifTrailer(image_)) return true;
  auto program = ChildProgram::start({.words = {"7zz", "t", "-tdmg", "-y", imagePath}, .input = image_.get()});
  return program && program->finish() == 0;
}

bool VolumeImage::extract(const std::string& folder) const {
  if (!extractFiles(folder) || !dropIdentityBits(folder)) return false;
  for (const std::string& path : listing_.specialFiles()) removeSpecialFile(folder, path);
  return extractLinks(folder) && restrictFolders(folder);
}

bool VolumeImage::extractFiles(const std::string& folder) const {
  auto program =
      ChildProgram::start({.words = command({"x", "-snl-", "-sns-"}), .input = image_.get(), .workingFolder = folder});
  return program && program->finish() == 0;
}

bool VolumeImage::extractLinks(const std::string& folder) const {
  std::vector<Link> links = listing_.links();
  return readLinkTexts(links) && std::ranges::all_of(links, [&](const Link& link) { return makeLink(folder, link); });
}

bool VolumeImage::restrictFolders(const std::string& folder) const {
  // The inner ones first: a restricted folder may bar the way to what lies in it.
  return std::ranges::all_of(listing_.restrictedFolders() | std::views::reverse, [&](const auto& restricted) {
    const std::string path = "/proc/self/fd/";
    const FileDescriptor parent = folderOf(folder, restricted.path + "/.");
    return parent && chmod((path + std::to_string(parent.get())).c_str(), restricted.permissions) == 0;
  });
}

bool VolumeImage::readLinkTexts(std::vector<Link>& links) const {
  std::vector<Link*> untold;
  for (Link& link : links) {
    if (link.text.empty()) untold.push_back(&link);
  }
  while (!untold.empty()) {
    const std::span batch = std::span(untold).first(std::min(untold.size(), linksAtOnce));
    std::vector<std::string> words = {"x", "-so"};
    for (const Link* link : batch) words.push_back("-i!" + link->path);
    auto program = ChildProgram::start({.words = command(words), .input = image_.get()});
    if (!program) return false;
    // The texts come one behind the other, in the order of the listing.
    for (Link* link : batch) {
      if (link->size >= PATH_MAX) return false;
      link->text.resize(link->size);
      if (program->read(link->text) != link->size) return false;
    }
    std::array<char, 1> excess{};
    if (program->read(excess) != 0 || program->finish() != 0) return false;
    untold.erase(untold.begin(), untold.begin() + static_cast<std::ptrdiff_t>(batch.size()));
  }
  return true;
}

}  // namespace tools
