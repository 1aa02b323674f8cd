#pragma once

#include "Posix/Machine.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tools::tests {

namespace fs = std::filesystem;

/// What a run of a tool yielded.
struct Outcome {
  int status = 0;
  std::string output;
  std::string error;
};

/// An empty stand-in Mac in a temporary folder, with the tools installed.
class ToolWorld : public testing::Test {
 protected:
  ToolWorld();
  ~ToolWorld() override;

  /// Runs a tool by its path on the Mac.
  static Outcome run(const std::string& tool, const std::vector<std::string>& arguments);

  fs::path write(const fs::path& path, const std::string& bytes) const;
  static std::string read(const fs::path& path);

  /// Everything below a folder: its path with its kind, permissions and contents (or a link's text).
  static std::vector<std::string> tree(const fs::path& folder);

  fs::path folder;  // a place for anything
  fs::path sysroot;
  platform::posix::Machine machine{platform::posix::Sysroot(""), "", ""};
};

}  // namespace tools::tests
