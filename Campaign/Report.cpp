#include "Campaign/Families.h"
#include "Posix/FileDescriptor.h"

#include <stdexcept>

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

namespace campaign {

Report::Report() : to_(fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0), "w")) {
  const platform::posix::FileDescriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (to_ == nullptr || !nowhere || dup2(nowhere.get(), STDOUT_FILENO) < 0) throw std::runtime_error("no output");
}

void Report::show(const std::string& line) {
  fmt::print(to_, "{}\n", line);
  std::fflush(to_);
}

void Report::heading(const std::string& title, const std::string& text) {
  show(fmt::format("\n## {}\n\n{}\n", title, text));
  isInTable_ = false;
}

void Report::row(const std::vector<std::string>& cells) {
  show(fmt::format("| {} |", fmt::join(cells, " | ")));
  if (isInTable_) return;
  isInTable_ = true;
  show(fmt::format("|{}", fmt::join(std::vector<std::string>(cells.size(), "---|"), "")));
}

void Report::note(const std::string& text) {
  show("\n" + text);
  isInTable_ = false;
}

void Report::broken(const std::string& what) {
  ++brokenPromises_;
  fmt::print(stderr, "broken: {}\n", what);
}

}  // namespace campaign
