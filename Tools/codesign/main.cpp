#include "codesign/Sign.h"
#include "codesign/Verify.h"

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
  constexpr int usage = 2;
  codesigntool::SignOptions signing;
  codesigntool::VerifyOptions verification;
  std::string path;
  std::string requirement;
  bool isVerification = false;

  CLI::App app("Signs code and verifies its signature.", "codesign");
  auto* sign = app.add_option("-s,--sign", signing.identity, "Sign with the identity of a PEM file; - signs ad hoc");
  app.add_flag("-f,--force", signing.isForced, "Replace a signature that is there")->needs(sign);
  app.add_option("-i,--identifier", signing.identifier, "The identifier to sign with")->needs(sign);
  auto* verify = app.add_flag("--verify", isVerification, "Verify the signature")->excludes(sign);
  auto* test = app.add_option("-R,--test-requirement", requirement, "Verify against it: -R='anchor apple generic'");
  test->needs(verify);
  app.add_flag("-v,--verbose", verification.isVerbose, "Say on standard error what was found");
  app.add_option("PATH", path, "A bundle, a disk image or an executable")->required();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : usage;
  }
  signing.path = path;
  verification.path = path;
  if (test->count() > 0) verification.requirement = requirement;
  if (sign->count() > 0) return codesigntool::sign(signing);
  if (isVerification) return codesigntool::verify(verification);
  std::fputs("codesign: one of --sign and --verify is needed\n", stderr);
  return usage;
}
