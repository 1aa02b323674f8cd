#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace campaign {

/// How much of a family to run.
enum class Extent { full, sample };

/// Prints a heading and a table in Markdown, a line at a time, and counts what broke a promise.
class Report {
 public:
  /// To standard output, which from here on is nobody else's: what the programs print that are started goes nowhere.
  Report();

  void heading(const std::string& title, const std::string& text);
  /// The first row is the header.
  void row(const std::vector<std::string>& cells);
  void note(const std::string& text);
  /// Something that must not be; shown, and the campaign fails.
  void broken(const std::string& what);
  [[nodiscard]] int brokenPromises() const { return brokenPromises_; }

 private:
  void show(const std::string& line);

  std::FILE* to_;
  bool isInTable_ = false;
  int brokenPromises_ = 0;
};

/// What every family is told.
struct Campaign {
  std::filesystem::path prefix;  // where the build is installed
  Extent extent = Extent::full;
  Report& report;
};

void killTheAgent(Campaign& campaign);
void failSystemCalls(Campaign& campaign);
void disturbTheServers(Campaign& campaign);
void disturbTheApplication(Campaign& campaign);
void overload(Campaign& campaign);

}  // namespace campaign
