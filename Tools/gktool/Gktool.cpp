#include "gktool/Gktool.h"

#include "Support/ErrorText.h"

#include <cerrno>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <sys/stat.h>

namespace tools {
namespace {

int scan(const platform::posix::Machine& machine, const std::string& path) {
  struct stat status{};
  if (stat(machine.sysroot.machinePath(path).c_str(), &status) != 0) {
    fmt::print(stderr, "Scan completed, but failed because {}: {}\n", path, errorText(errno));
    return 1;
  }
  fmt::print("Scan completed and software is allowed by system policy.\n");
  return 0;
}

}  // namespace

int gktool(const platform::posix::Machine& machine, std::vector<std::string> words) {
  CLI::App app("Gatekeeper tool", "gktool");
  app.require_subcommand(1);
  std::string path;
  app.add_subcommand("scan", "Scan software before its first launch")->add_option("path", path)->required();
  try {
    std::ranges::reverse(words);  // as CLI11 takes a vector
    app.parse(words);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  return scan(machine, path);
}

}  // namespace tools
