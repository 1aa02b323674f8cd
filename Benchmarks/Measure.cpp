#include "Benchmarks/Measure.h"

#include "Posix/ArgumentVector.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <random>
#include <stdexcept>

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>

namespace benchmarks {
namespace {

std::string scaled(double figure, double step, const std::vector<const char*>& units) {
  std::size_t unit = 0;
  while (unit + 1 < units.size() && std::abs(figure) >= step) {
    figure /= step;
    ++unit;
  }
  return fmt::format("{:.3g} {}", figure, units[unit]);
}

}  // namespace

Times best(int turns, const std::function<double()>& subject, const std::function<double()>& reference) {
  subject();
  reference();
  Times times{.subject = std::numeric_limits<double>::infinity(), .reference = std::numeric_limits<double>::infinity()};
  for (int turn = 0; turn < turns; ++turn) {
    times.subject = std::min(times.subject, subject());
    times.reference = std::min(times.reference, reference());
  }
  return times;
}

double run(const std::vector<std::string>& words, const std::vector<std::string>& environment) {
  std::vector<std::string> arguments = words;
  std::vector<std::string> variables = environment;
  variables.emplace_back("PATH=/usr/bin:/bin");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t process = -1;
  int status = -1;
  const double seconds = timed([&] {
    if (posix_spawnp(&process, words[0].c_str(), &actions, nullptr, platform::posix::argumentVector(arguments).data(),
                     platform::posix::argumentVector(variables).data()) == 0) {
      waitpid(process, &status, 0);
    }
  });
  posix_spawn_file_actions_destroy(&actions);
  if (status != 0) throw std::runtime_error(fmt::format("{} failed", words[0]));
  return seconds;
}

double timed(const std::function<void()>& function) {
  const auto begin = std::chrono::steady_clock::now();
  function();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

std::string duration(double seconds) {
  return scaled(seconds * 1e9, 1000, {"ns", "µs", "ms", "s"});
}

std::string size(double bytes) {
  return scaled(bytes, 1000, {"B", "kB", "MB", "GB", "TB", "PB"});
}

std::string plain(double figure) {
  return fmt::format("{:.3g}", figure);
}

Table::Table(std::FILE* file, bool hasMarks) : file_(file), hasMarks_(hasMarks) {
  row("what", "measured", "reference", "ratio", "mark", true);
  row("---", "---", "---", "---", "---", true);
}

void Table::compare(const std::string& what, const std::string& reference, const Times& times, double mark,
                    std::string (*shown)(double)) {
  row(what, shown(times.subject), fmt::format("{}: {}", reference, shown(times.reference)),
      fmt::format("{:.2f}", times.ratio()), fmt::format("≤ {}", mark), times.ratio() <= mark);
}

void Table::limit(const std::string& what, double figure, double mark, std::string (*shown)(double)) {
  row(what, shown(figure), "", "", "≤ " + shown(mark), figure <= mark);
}

void Table::note(const std::string& what, const std::string& shown) {
  row(what, shown, "", "", "", true);
}

void Table::row(const std::string& what, const std::string& measured, const std::string& reference,
                const std::string& ratio, const std::string& mark, bool isMet) {
  const bool counts = hasMarks_ && !isMet;
  missed_ += counts ? 1 : 0;
  fmt::print(file_, "| {} | {} | {} | {} | {}{} |\n", what, measured, reference, ratio, mark,
             counts ? " **missed**" : "");
  std::fflush(file_);
}

void writeBallast(const std::filesystem::path& path, std::size_t bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  std::minstd_rand random;  // the same bytes every time
  std::vector<std::uint32_t> block(std::size_t{1} << 18U);
  for (std::size_t left = bytes; left > 0;) {
    std::ranges::generate(block, [&] { return static_cast<std::uint32_t>(random() << 8U ^ random()); });
    const std::size_t count = std::min(left, block.size() * sizeof(std::uint32_t));
    file.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(count));
    left -= count;
  }
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace benchmarks
