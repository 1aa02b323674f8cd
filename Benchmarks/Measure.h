#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace benchmarks {

/// What one run of the benchmarks is made of.
struct Plan {
  std::filesystem::path prefix;        // where the build is installed
  std::filesystem::path hurriedAgent;  // the agent on a clock of its own
  std::chrono::seconds idle{600};
  bool isShrunk = false;  // whether everything works at all: small sizes, one repetition, no marks

  [[nodiscard]] std::size_t bytes(std::size_t megabytes) const { return megabytes * (isShrunk ? 10'000 : 1'000'000); }
  [[nodiscard]] int times(int count) const { return isShrunk ? 1 : count; }
};

/// The best times of a subject and of its reference, in seconds.
struct Times {
  double subject;
  double reference;

  [[nodiscard]] double ratio() const { return subject / reference; }
};

/// Measures both by turns, after one turn that does not count, and takes the best of each: what else the machine does
/// only makes a turn longer. Each function yields the seconds it measured itself.
Times best(int turns, const std::function<double()>& subject, const std::function<double()>& reference);

/// Runs a program to its end, its output thrown away: the seconds it took. Throws std::runtime_error unless it exits
/// with status 0.
double run(const std::vector<std::string>& words, const std::vector<std::string>& environment = {});

/// The seconds a function takes.
double timed(const std::function<void()>& function);

/// "1.23 ms".
std::string duration(double seconds);
/// "1.23 MB", of 10^6 bytes.
std::string size(std::uint64_t bytes);

/// The lines of the one table that a run prints, each shown when it is added.
class Table {
 public:
  /// The file is used while the table lives.
  Table(std::FILE* file, bool hasMarks);

  /// A time against the reference's time.
  void compare(const std::string& what, const std::string& reference, const Times& times, double mark);
  /// A figure that has a limit of its own. `shown` is the figure in its unit, `limit` the mark's.
  void limit(const std::string& what, const std::string& shown, double figure, const std::string& limitShown,
             double limit);
  /// A figure without a mark.
  void note(const std::string& what, const std::string& shown);

  [[nodiscard]] int missed() const { return missed_; }

 private:
  void row(const std::string& what, const std::string& measured, const std::string& reference, const std::string& ratio,
           const std::string& mark, bool isMet);

  std::FILE* file_;
  bool hasMarks_;
  int missed_ = 0;
};

/// A file of so many bytes that do not compress, the same every time.
void writeBallast(const std::filesystem::path& path, std::size_t bytes);

}  // namespace benchmarks
