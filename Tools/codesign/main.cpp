#include "codesign/Verify.h"

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
  constexpr int usage = 2;
  CLI::App app("Signs code and verifies its signature.", "codesign");
  bool isVerify = false;
  codesigntool::VerifyOptions options;
  std::string requirement;
  app.add_flag("--verify", isVerify, "Verify the signature of the code at PATH");
  auto* requirementOption =
      app.add_option("-R,--test-requirement", requirement, "Verify against a requirement: -R='anchor apple generic'");
  app.add_flag("-v,--verbose", options.isVerbose, "Say on standard error what was found");
  app.add_option("PATH", options.path, "A bundle, a disk image or an executable")->required();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : usage;
  }
  if (requirementOption->count() > 0) options.requirement = requirement;
  return isVerify ? codesigntool::verify(options) : usage;
}
