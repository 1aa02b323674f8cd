#include "Campaign/Families.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace {

struct Family {
  const char* name;
  void (*run)(campaign::Campaign&);
};
constexpr Family families[] = {
    {"kills", campaign::killTheAgent},
    {"calls", campaign::failSystemCalls},
    {"servers", campaign::disturbTheServers},
    {"application", campaign::disturbTheApplication},
    {"load", campaign::overload},
};

}  // namespace

/// campaign [FAMILY…]: attacks the installed agent and prints a table of what became of it. Exit status 1 when a
/// promise was broken.
int main(int argc, char** argv) {
  CLI::App commandLine("Attacks the installed agent and prints tables of what became of it");
  std::vector<std::string> chosen;
  std::vector<std::string> names;
  for (const Family& family : families) names.emplace_back(family.name);
  commandLine.add_option("FAMILY", chosen, "which faults; all without any")->check(CLI::IsMember(names));
  bool isSample = false;
  commandLine.add_flag("--sample", isSample, "a few of each, within seconds");
  std::string prefix;
  commandLine.add_option("--prefix", prefix, "where the build is installed")->required();
  CLI11_PARSE(commandLine, argc, argv);

  campaign::Report report;
  campaign::Campaign campaign{
      .prefix = prefix, .extent = isSample ? campaign::Extent::sample : campaign::Extent::full, .report = report};
  for (const Family& family : families) {
    if (!chosen.empty() && std::ranges::find(chosen, family.name) == chosen.end()) continue;
    const auto begin = std::chrono::steady_clock::now();
    try {
      family.run(campaign);
    } catch (const std::exception& error) {
      report.broken(fmt::format("{}: {}", family.name, error.what()));
    }
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    report.note(fmt::format("`{}` took {:.0f} s.", family.name, time.count()));
  }
  report.note(fmt::format("Broken promises: {}.", report.brokenPromises()));
  return report.brokenPromises() == 0 ? 0 : 1;
}
