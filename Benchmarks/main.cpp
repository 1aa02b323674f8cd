#include "Benchmarks/Rows.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <string_view>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

namespace {

struct Benchmark {
  std::string_view name;
  void (*measure)(const benchmarks::Plan& plan, benchmarks::Table& table);
};

constexpr std::array benchmarksInOrder = {
    Benchmark{"log", benchmarks::logRows},        Benchmark{"list", benchmarks::listRow},
    Benchmark{"image", benchmarks::imageRow},     Benchmark{"pages", benchmarks::pagesRow},
    Benchmark{"bundle", benchmarks::bundleRow},   Benchmark{"download", benchmarks::downloadRows},
    Benchmark{"install", benchmarks::installRow}, Benchmark{"start", benchmarks::startRow},
    Benchmark{"checks", benchmarks::checksRows},  Benchmark{"installs", benchmarks::installsRows},
    Benchmark{"fleet", benchmarks::fleetRows},    Benchmark{"idle", benchmarks::idleRows},
};

}  // namespace

int main(int argc, char** argv) {
  const auto folder = std::filesystem::canonical("/proc/self/exe").parent_path();
  benchmarks::Plan plan{.hurriedAgent = folder / "HurriedAgent"};
  std::vector<std::string> rows;
  double idleMinutes = 10;
  CLI::App options{
      "Measures the agent's speed and footprint and prints one table. Exit status 0 when every mark was met.",
      "benchmarks"};
  options.add_option("--prefix", plan.prefix, "Where the build is installed")
      ->required()
      ->check(CLI::ExistingDirectory);
  options.add_option("--idle-minutes", idleMinutes, "How long the idle agent is watched");
  options.add_flag("--shrunk", plan.isShrunk, "Small sizes, one repetition, no marks: whether all of it works");
  std::vector<std::string> names;
  for (const auto& benchmark : benchmarksInOrder) names.emplace_back(benchmark.name);
  options.add_option("ROW", rows, "What to measure instead of everything")->check(CLI::IsMember(names));
  CLI11_PARSE(options, argc, argv);
  plan.idle = std::chrono::seconds(static_cast<int>(idleMinutes * 60));
  // What the rehearsal kit and the tools show is not part of the table.
  std::FILE* const output = fdopen(dup(STDOUT_FILENO), "w");
  if (output == nullptr || std::freopen((folder / "transcript.log").c_str(), "w", stdout) == nullptr) return 2;
  try {
    benchmarks::Table table(output, !plan.isShrunk);
    for (const auto& benchmark : benchmarksInOrder) {
      if (rows.empty() || std::ranges::find(rows, benchmark.name) != rows.end()) benchmark.measure(plan, table);
    }
    return table.missed() == 0 ? 0 : 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "Failed: {}\n", error.what());
    return 2;
  }
}
