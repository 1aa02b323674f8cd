#include "Posix/RegularFile.h"
#include "Support/Saboteur.h"
#include "Support/World.h"

#include <algorithm>
#include <array>
#include <filesystem>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>

using platform::NSError;
using platform::URL;
namespace fs = std::filesystem;
using fakes::failEachCall;
using fakes::fileErrors;
using fakes::Saboteur;

namespace {

URL at(const fs::path& path) {
  return URL::fileURL(path.string());
}

class FileFaults : public World {
 protected:
  FileFaults() {
    rehearsal::writeFile(source / "Contents/MacOS/Orvik", std::string(100'000, 'x'));
    rehearsal::writeFile(source / "Contents/Info.plist", "plist");
    fs::create_symlink("MacOS/Orvik", source / "Contents/link");
    chmod((source / "Contents/MacOS/Orvik").c_str(), 0751);
    setxattr((source / "Contents/Info.plist").c_str(), "user.mark", "m", 1, 0);
    before = contents(source);
  }

  static std::string contents(const fs::path& folder) {
    std::vector<std::string> lines;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      std::array<char, 8> mark{};
      lgetxattr(entry.path().c_str(), "user.mark", mark.data(), mark.size() - 1);
      struct stat status{};
      lstat(entry.path().c_str(), &status);
      std::string bytes;
      if (entry.is_symlink()) {
        bytes = fs::read_symlink(entry);
      } else if (entry.is_regular_file()) {
        bytes = rehearsal::readFile(entry);
      }
      lines.push_back(fmt::format("{} {:o} {} {} {}", entry.path().lexically_relative(folder).string(), status.st_mode,
                                  mark.data(), status.st_mtim.tv_nsec, bytes));
    }
    std::ranges::sort(lines);
    return testing::PrintToString(lines);
  }

  /// What failed is told by the error's POSIX code.
  template <class Value>
  static void expectTruth(const std::expected<Value, NSError>& result, const Saboteur& saboteur) {
    if (result) return;
    ASSERT_NE(result.error().underlyingError(), nullptr) << saboteur.failed;
    EXPECT_EQ(result.error().underlyingError()->domain(), platform::NSPOSIXErrorDomain) << saboteur.failed;
    EXPECT_EQ(result.error().underlyingError()->code(), saboteur.error) << saboteur.failed;
  }

  const fs::path source = mac.home() / "Orvik.app";
  const fs::path target = mac.home() / "there";
  std::string before;
};

TEST_F(FileFaults, ACopyIsWholeOrFailsWithTheReason) {
  failEachCall(fileErrors.size(), [&](Saboteur& saboteur) {
    fs::remove_all(target);
    std::expected<void, NSError> copied;
    saboteur.watch([&] { copied = fileManager_.copyItem(at(source), at(target)); });
    EXPECT_TRUE(!copied || contents(target) == before) << saboteur.failed;
    expectTruth(copied, saboteur);
  });
}

TEST_F(FileFaults, ARemovalIsDoneOrFailsWithTheReason) {
  failEachCall(fileErrors.size(), [&](Saboteur& saboteur) {
    fs::remove_all(target);
    fs::copy(source, target, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    std::expected<void, NSError> removed;
    saboteur.watch([&] { removed = fileManager_.removeItem(at(target)); });
    EXPECT_EQ(removed.has_value(), !fs::exists(target)) << saboteur.failed;
    expectTruth(removed, saboteur);
  });
}

TEST_F(FileFaults, OneFileIsMovedListedAndWrittenOrNot) {
  failEachCall(fileErrors.size(), [&](Saboteur& saboteur) {
    fs::remove_all(target);
    rehearsal::writeFile(mac.home() / "file", "bytes");
    rehearsal::writeFile(mac.home() / "defaults", "old");
    std::expected<void, NSError> moved;
    std::expected<std::vector<URL>, NSError> listed;
    std::expected<std::string, NSError> read;
    int written = 0;
    saboteur.watch([&] {
      moved = fileManager_.createDirectory(at(target));
      if (moved) moved = fileManager_.moveItem(at(mac.home() / "file"), at(target / "file"));
      listed = fileManager_.contentsOfDirectory(at(source / "Contents"));
      read = fileManager_.contents(at(source / "Contents/Info.plist"), 100);
      written = platform::posix::replaceFile(mac.home() / "defaults", "new");
    });
    EXPECT_EQ(moved.has_value(), fs::exists(target / "file")) << saboteur.failed;
    EXPECT_NE(fs::exists(mac.home() / "file"), fs::exists(target / "file")) << saboteur.failed;
    expectTruth(moved, saboteur);
    EXPECT_EQ(listed ? listed->size() : 3, 3U) << saboteur.failed;
    expectTruth(listed, saboteur);
    EXPECT_EQ(read.value_or("plist"), "plist") << saboteur.failed;
    expectTruth(read, saboteur);
    EXPECT_EQ(rehearsal::readFile(mac.home() / "defaults"), written == 0 ? "new" : "old") << saboteur.failed;
    EXPECT_THAT(written, testing::AnyOf(0, saboteur.error)) << saboteur.failed;
    for (const auto& entry : fs::directory_iterator(mac.home()))
      EXPECT_FALSE(entry.path().filename().string().starts_with("defaults.")) << saboteur.failed;
  });
}

TEST(SelfRemoval, TakesEveryStepWhateverCallFails) {
  failEachCall(1, [](Saboteur& saboteur) {
    World agent;
    const fs::path plist = agent.mac.home() / "Library/LaunchAgents/com.corvane.EmergencyUpdateService.plist";
    const fs::path bundle = agent.mac.home() / "Agent.app";
    rehearsal::writeFile(plist, "job");
    rehearsal::writeFile(bundle / "Contents/MacOS/EmergencyUpdateService", "agent");
    agent.launch();
    saboteur.watch([&] { agent.advance(60); });
    EXPECT_EQ(agent.processExit.status, 0) << saboteur.failed;
    const std::string records = testing::PrintToString(agent.records());
    const auto truth = [&](const char* tag) {
      return testing::ContainsRegex(
          fmt::format("Could not remove {}, error: .*NSPOSIXErrorDomain, Code={}\\}}", tag, saboteur.error));
    };
    for (const auto& [path, tag] :
         {std::pair(plist, "configuration plist"), std::pair(bundle, "bundle installation")}) {
      if (fs::exists(path)) {
        EXPECT_THAT(records, truth(tag)) << saboteur.failed;
      }
    }
    EXPECT_THAT(records, testing::HasSubstr("\"Booting out\", \"Stopping own proces\"")) << saboteur.failed;
  });
}

}  // namespace
