#include "ToolWorld.h"

#include <cstdlib>

#include <fmt/format.h>
#include <sys/stat.h>

namespace tools::tests {
namespace {

class HdiutilTests : public ToolWorld {
 protected:
  HdiutilTests() : source(folder / "source") {
    write("source/Orvik.app/Contents/MacOS/Orvik", "#!/bin/sh\n");
    write("source/payload", std::string(54321, 'p'));
    write("source/sub/xx", "inner");
    fs::create_symlink("/Applications", source / "Applications");
    fs::create_symlink(folder / "escape", source / "lnk");
    fs::create_directory(folder / "escape");
  }
  // Whatever a failed test leaves attached has closed folders.
  ~HdiutilTests() override { run("/bin/chmod", {"-R", "u+rwx", folder}); }

  static Outcome hdiutil(const std::vector<std::string>& words) { return run("/usr/bin/hdiutil", words); }

  static Outcome attach(const fs::path& image, std::vector<std::string> words = {"-noverify"}) {
    words.insert(words.begin(), {"attach", image, "-mountpoint", "/Volumes/V"});
    return hdiutil(words);
  }

  [[nodiscard]] fs::path image() const {
    const Outcome made =
        hdiutil({"create", "-srcfolder", source, "-volname", "Vol", "-format", "UDZO", folder / "i.dmg"});
    EXPECT_EQ(made.status, 0) << made.error;
    return folder / "i.dmg";
  }

  /// The bare volume of an image of the source, with every occurrence of one text replaced by another as long.
  [[nodiscard]] fs::path volume(const std::string& from, const std::string& to) const {
    const std::string name = image();
    std::string bytes = run("/bin/sh", {"-c", "exec 7zz x -tdmg -so -- \"$1\"", "sh", name}).output;
    std::size_t count = 0;
    for (auto at = bytes.find(from); at != std::string::npos; at = bytes.find(from, at + to.size()), ++count) {
      bytes.replace(at, from.size(), to);
    }
    EXPECT_GT(count, 0U) << "nothing to replace";
    return write("volume.dmg", bytes);
  }

  void expectRefusal(const fs::path& image, const std::string& reason) const {
    const Outcome outcome = attach(image);
    EXPECT_EQ(outcome.status, 1) << image;
    EXPECT_EQ(outcome.error, fmt::format("hdiutil: attach failed - {}\n", reason)) << image;
    expectNothingAttached();
  }
  void expectNothingAttached() const {
    EXPECT_TRUE(fs::is_empty(sysroot / "Volumes"));
    EXPECT_TRUE(fs::is_empty(folder / "tmp"));
    EXPECT_TRUE(fs::is_empty(folder / "escape"));
  }

  fs::path source;
};

std::string utf16(std::string_view text) {
  std::string result;
  for (const char c : text) result += std::string(1, '\0') + c;
  return result;
}

std::string bigEndian64(std::uint64_t value) {
  std::string bytes;
  for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
  return bytes;
}

TEST_F(HdiutilTests, AttachShowsWhatCreatePackedAndDetachRemovesIt) {
  fs::permissions(source / "Orvik.app/Contents/MacOS/Orvik", fs::perms{0755});
  fs::permissions(source / "payload", fs::perms{0400});
  fs::create_symlink("../MacOS/Orvik", source / "Orvik.app/Contents/up");
  fs::create_symlink("t", source / "Orvik.app/ * \"odd\" name ");
  fs::create_directory(source / "Vol");  // like the volume itself
  write("source/large", std::string(3'000'000, 'l'));
  write("source/random", read("/proc/self/exe").substr(0, 1'500'000));
  fs::permissions(source / "sub", fs::perms{0555});
  const auto expected = tree(source);

  const Outcome attached = attach(image(), {"-nobrowse", "-noautoopen"});
  ASSERT_EQ(attached.status, 0) << attached.error;
  EXPECT_EQ(tree(sysroot / "Volumes/V"), expected);
  EXPECT_EQ(hdiutil({"detach", "/Volumes/V", "-force"}).status, 0);
  expectNothingAttached();
}

TEST_F(HdiutilTests, DropsIdentityBitsAndDeviceNodes) {
  fs::permissions(source / "payload", fs::perms{06755});
  ASSERT_EQ(mkfifo((source / "fifo").c_str(), 0644), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(mknod((source / "null").c_str(), S_IFCHR | 0666, 0x103), 0);
  }
  ASSERT_EQ(attach(image()).status, 0);
  EXPECT_EQ(fs::status(sysroot / "Volumes/V/payload").permissions(), fs::perms{0755});
  EXPECT_FALSE(fs::exists(sysroot / "Volumes/V/fifo"));
  EXPECT_FALSE(fs::exists(sysroot / "Volumes/V/null"));
}

TEST_F(HdiutilTests, RefusesImagesThatWouldDoHarm) {
  struct Row {
    const char* name;
    std::string from;
    std::string to;
    const char* reason;
  };
  const std::vector<Row> rows = {
      {"a name that is the parent folder", utf16("xx"), utf16(".."), "no mountable file systems"},
      {"a folder under the name of a link", utf16("sub"), utf16("lnk"), "no mountable file systems"},
      {"contents larger than the disk", bigEndian64(54321), bigEndian64(1ULL << 50U), "No space left on device"},
      {"a link's text longer than a path", bigEndian64(13), bigEndian64(5000), "no mountable file systems"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    expectRefusal(volume(row.from, row.to), row.reason);
    fs::remove(folder / "i.dmg");
  }
}

TEST_F(HdiutilTests, RefusesWhatIsNoImage) {
  const std::string good = read(image());
  ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
  expectRefusal(folder / "missing", "No such file or directory");
  for (const fs::path& other :
       {folder / "fifo", fs::path("/dev/zero"), source, write("text", "text"),
        write("truncated", good.substr(0, good.size() / 2)), write("beheaded", good.substr(1000))}) {
    expectRefusal(other, "image not recognized");
  }
  EXPECT_EQ(hdiutil({"attach", folder / "i.dmg"}).status, 1) << "no mount point";
  EXPECT_EQ(hdiutil({"attach", folder / "text", "-mountpoint", "/Volumes/P/Q/V"}).status, 1);
  EXPECT_FALSE(fs::exists(sysroot / "Volumes/P")) << "folders on the way to a volume that never came";
}

TEST_F(HdiutilTests, ChecksumsCountUnlessToldOtherwise) {
  std::string bytes = read(image());
  const std::size_t table = bytes.find("bWlzaA");  // the table of blocks, in base64
  ASSERT_NE(table, std::string::npos);
  std::size_t checksum = table;  // of the volume, from byte 72 of the table
  for (int digits = 0; digits < 98; ++checksum) digits += std::isspace(bytes[checksum]) == 0 ? 1 : 0;
  while (std::isspace(bytes[checksum]) != 0) ++checksum;
  bytes[checksum] = bytes[checksum] == 'A' ? 'B' : 'A';
  const fs::path damaged = write("damaged.dmg", bytes);
  EXPECT_EQ(attach(damaged, {}).error, "hdiutil: attach failed - corrupt image\n");
  expectNothingAttached();
  EXPECT_EQ(attach(damaged).status, 0);
}

TEST_F(HdiutilTests, AnOccupiedMountPointIsLeftAlone) {
  const fs::path kept = write("Mac/Volumes/V/kept", "mine");
  EXPECT_EQ(attach(image()).error, "hdiutil: attach failed - Resource busy\n");
  EXPECT_EQ(hdiutil({"detach", "/Volumes/V"}).status, 1);
  EXPECT_EQ(read(kept), "mine");

  fs::remove(kept);
  EXPECT_EQ(attach(folder / "i.dmg").status, 0) << "an empty folder will do";
  EXPECT_EQ(attach(folder / "i.dmg").status, 1) << "attached there already";
  // Something else has come to lie at the same path: it was not attached.
  fs::rename(sysroot / "Volumes/V", folder / "elsewhere");
  write("Mac/Volumes/V/kept", "mine");
  const Outcome detached = hdiutil({"detach", "/Volumes/V", "-force"});
  EXPECT_EQ(detached.status, 1);
  EXPECT_EQ(detached.error, "hdiutil: detach failed - No such file or directory\n");
  EXPECT_EQ(read(kept), "mine");
}

TEST_F(HdiutilTests, WhatAKilledAttachLeavesCanBeDetached) {
  const fs::path program = write("bin/7zz", fmt::format("#!/bin/sh\n[ \"$1\" != x ] || kill -9 $PPID\n"
                                                        "PATH='{}' exec 7zz \"$@\"\n",
                                                        std::getenv("PATH")));
  fs::permissions(program, fs::perms::owner_all);
  const std::string made = image();
  const Outcome killed =
      run("/usr/bin/env", {fmt::format("PATH={}:/usr/bin:/bin", program.parent_path().native()),
                           sysroot / "usr/bin/hdiutil", "attach", made, "-mountpoint", "/Volumes/V", "-noverify"});
  EXPECT_EQ(killed.status, 9);
  ASSERT_TRUE(fs::exists(sysroot / "Volumes/V"));
  EXPECT_EQ(hdiutil({"detach", "/Volumes/V"}).status, 0);
  expectNothingAttached();
}

TEST_F(HdiutilTests, CreateReplacesOnlyWhenTold) {
  const fs::path output = write("o.dmg", "old");
  const std::vector<std::string> words = {"create", "-srcfolder", source, "-volname", "V", output};
  EXPECT_EQ(hdiutil(words).error, "hdiutil: create failed - File exists\n");
  EXPECT_EQ(read(output), "old");
  EXPECT_EQ(hdiutil({"create", "-ov", "-srcfolder", folder / "no", "-volname", "V", output}).status, 1);
  EXPECT_EQ(read(output), "old");
  EXPECT_EQ(hdiutil({"create", "-ov", "-srcfolder", source, "-volname", std::string(40, 'V'), output}).status, 0);
  EXPECT_EQ(attach(output, {}).status, 0);
}

TEST_F(HdiutilTests, CreateRefusesWhatAVolumeWouldAlter) {
  const fs::path output = folder / "o.dmg";
  const auto refused = [&](const fs::path& from, const std::string& volumeName, const fs::path& to) {
    const Outcome outcome = hdiutil({"create", "-srcfolder", from, "-volname", volumeName, to});
    return outcome.status == 1 && outcome.error.starts_with("hdiutil: create failed - ") && !fs::exists(to);
  };
  for (const char* name : {"a:b", "CASE", "\xff"}) {
    const fs::path tree = folder / "tree";
    write(tree / "sub/case", "");
    write(tree / "sub" / name, "");
    EXPECT_TRUE(refused(tree, "V", output)) << name;
    fs::remove_all(tree);
  }
  EXPECT_TRUE(refused(source, "..", output));
  EXPECT_TRUE(refused(source, "V", source / "o.dmg")) << "an image of itself";
}

}  // namespace
}  // namespace tools::tests
