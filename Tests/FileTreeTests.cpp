#include "Posix/FileTree.h"
#include "Posix/PosixFileManager.h"
#include "Rehearsal/StandInMac.h"

#include <filesystem>

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>

using namespace platform;
using platform::posix::PosixFileManager;
namespace fs = std::filesystem;

namespace {

class FileTree : public testing::Test {
 protected:
  rehearsal::StandInMac mac;
  const fs::path volumes = mac.sysroot() / "Volumes";
  PosixFileManager files{posix::Sysroot(mac.sysroot().string())};

  static URL at(const std::string& path) { return URL::fileURL("/Volumes/" + path); }
  static struct stat status(const fs::path& path) {
    struct stat result{};
    EXPECT_EQ(lstat(path.c_str(), &result), 0) << path;
    return result;
  }
  template <class Result>
  static std::string codes(const Result& result) {
    if (result) return "";
    const auto* cause = result.error().underlyingError();
    return fmt::format("{}/{}", result.error().code(), cause == nullptr ? 0 : cause->code());
  }
};

TEST_F(FileTree, ACopyKeepsEverythingButPrivileges) {
  const fs::path app = volumes / "A.app";
  rehearsal::writeFile(app / "Contents/MacOS/a", std::string(3'000'000, 'x'));
  rehearsal::writeFile(app / "Contents/empty", "");
  fs::create_symlink("../Contents/MacOS/a", app / "link");
  fs::create_symlink("/nowhere", app / "dangling");
  ASSERT_EQ(setxattr((app / "Contents/MacOS/a").c_str(), "user.com.apple.quarantine", "q", 1, 0), 0);
  ASSERT_EQ(setxattr(app.c_str(), "user.n", "", 0, 0), 0);
  chmod((app / "Contents/MacOS/a").c_str(), 06751);
  chmod((app / "Contents").c_str(), 0555);
  const timespec times[2] = {{.tv_sec = 1000, .tv_nsec = 5}, {.tv_sec = 2000, .tv_nsec = 7}};
  for (const char* path : {"Contents/MacOS/a", "Contents", "link"}) {
    utimensat(AT_FDCWD, (app / path).c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
  EXPECT_EQ(codes(files.copyItem(at("A.app"), at("B.app"))), "");
  const fs::path copy = volumes / "B.app";
  EXPECT_EQ(rehearsal::readFile(copy / "Contents/MacOS/a"), std::string(3'000'000, 'x'));
  EXPECT_EQ(rehearsal::readFile(copy / "Contents/empty"), "");
  EXPECT_EQ(fs::read_symlink(copy / "link"), "../Contents/MacOS/a");
  EXPECT_EQ(fs::read_symlink(copy / "dangling"), "/nowhere");
  EXPECT_EQ(status(copy / "Contents/MacOS/a").st_mode & 07777U, 0751U);
  EXPECT_EQ(status(copy / "Contents").st_mode & 07777U, 0555U);
  for (const char* path : {"Contents/MacOS/a", "Contents", "link"}) {
    EXPECT_EQ(status(copy / path).st_mtim.tv_sec, 2000) << path;
    EXPECT_EQ(status(copy / path).st_mtim.tv_nsec, 7) << path;
  }
  char value = 0;
  EXPECT_EQ(getxattr((copy / "Contents/MacOS/a").c_str(), "user.com.apple.quarantine", &value, 1), 1);
  EXPECT_EQ(value, 'q');
  EXPECT_EQ(getxattr(copy.c_str(), "user.n", nullptr, 0), 0);
  chmod((app / "Contents").c_str(), 0755);
  chmod((copy / "Contents").c_str(), 0755);
}

TEST_F(FileTree, CopiesFailWithTheirCodes) {
  rehearsal::writeFile(volumes / "file", "x");
  rehearsal::writeFile(volumes / "folder/a", "x");
  mkfifo((volumes / "folder/b").c_str(), 0600);
  fs::create_symlink("nowhere", volumes / "dangling");
  EXPECT_EQ(codes(files.copyItem(at("none"), at("new"))), "260/2");
  EXPECT_EQ(codes(files.copyItem(at("file"), at("none/new"))), "4/2");
  EXPECT_EQ(codes(files.copyItem(at("file"), at("file"))), "516/17");
  EXPECT_EQ(codes(files.copyItem(at("file"), at("dangling"))), "516/17");
  EXPECT_EQ(codes(files.copyItem(at("folder"), at("copy"))), "512/45") << "a fifo must not be waited for";
  EXPECT_EQ(codes(files.copyItem(at("file"), *URL::parse("https://a/b"))), "518/0");
  std::string deep = (volumes / "deep").string();
  for (int i = 0; i < 300; ++i) deep += "/d";
  fs::create_directories(deep);
  EXPECT_EQ(codes(files.copyItem(at("deep"), at("copy2"))), "514/63");
  fs::remove_all(volumes / "deep");
}

TEST_F(FileTree, RemovesTreesAndNeverFollowsLinks) {
  rehearsal::writeFile(volumes / "outside/kept", "x");
  rehearsal::writeFile(volumes / "tree/a/b", "x");
  fs::create_directory_symlink(volumes / "outside", volumes / "tree/a/link");
  fs::create_directory_symlink(volumes / "outside", volumes / "link");
  EXPECT_EQ(codes(files.removeItem(at("tree"))), "");
  EXPECT_EQ(codes(files.removeItem(at("link"))), "");
  EXPECT_FALSE(fs::exists(volumes / "tree") || fs::is_symlink(volumes / "link"));
  EXPECT_TRUE(fs::exists(volumes / "outside/kept"));
  EXPECT_EQ(codes(files.removeItem(at("tree"))), "4/2");
  EXPECT_EQ(codes(files.removeItem(URL::fileURL("/proc/self/status"))), "513/1");
}

TEST_F(FileTree, MovesOnlyToWhereNothingIs) {
  rehearsal::writeFile(volumes / "from/file", "x");
  fs::create_directories(volumes / "empty");
  fs::create_symlink("nowhere", volumes / "dangling");
  EXPECT_EQ(codes(files.moveItem(at("none"), at("to"))), "4/2");
  EXPECT_EQ(codes(files.moveItem(at("from"), at("none/to"))), "4/2");
  EXPECT_EQ(codes(files.moveItem(at("from"), at("empty"))), "516/17");
  EXPECT_EQ(codes(files.moveItem(at("from"), at("dangling"))), "516/17");
  EXPECT_EQ(codes(files.moveItem(at("from"), at("to"))), "");
  EXPECT_EQ(rehearsal::readFile(volumes / "to/file"), "x");
  // To another file system.
  const URL elsewhere = URL::fileURL(fmt::format("/dev/shm/moved-{}", getpid()));
  EXPECT_EQ(codes(files.moveItem(at("to"), elsewhere)), "");
  EXPECT_EQ(rehearsal::readFile(elsewhere.path() + "/file"), "x");
  EXPECT_FALSE(fs::exists(volumes / "to"));
  fs::remove_all(elsewhere.path());
}

TEST_F(FileTree, FoldersAreMadeAndListed) {
  EXPECT_EQ(codes(files.createDirectory(at("a/b/c"))), "");
  EXPECT_EQ(codes(files.createDirectory(at("a/b/c"))), "");
  rehearsal::writeFile(volumes / "a/.hidden", "x");
  fs::create_symlink("nowhere", volumes / "a/Dangling.app");
  rehearsal::writeFile(volumes / "a/._Orvik.app", "a companion");
  EXPECT_EQ(codes(files.createDirectory(at("a/.hidden"))), "516/17");
  EXPECT_EQ(codes(files.createDirectory(at("a/.hidden/x"))), "512/20");
  std::vector<std::string> listed;
  const auto entries = files.contentsOfDirectory(at("a"));
  ASSERT_TRUE(entries);
  for (const URL& url : *entries) listed.push_back(url.absoluteString());
  EXPECT_THAT(listed, testing::UnorderedElementsAre("file:///Volumes/a/b/", "file:///Volumes/a/.hidden",
                                                    "file:///Volumes/a/Dangling.app"));
  const auto missing = files.contentsOfDirectory(at("none"));
  EXPECT_EQ(codes(missing), "260/-43");
  EXPECT_EQ(missing.error().underlyingError()->domain(), "NSOSStatusErrorDomain");
  EXPECT_EQ(codes(files.contentsOfDirectory(at("a/.hidden"))), "256/20");
}

}  // namespace
