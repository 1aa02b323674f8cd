#include "Posix/LaunchdJobs.h"

#include "Posix/PropertyListFile.h"

#include <algorithm>
#include <filesystem>

namespace platform::posix {
namespace {

std::vector<std::string> jobFiles(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (const std::filesystem::directory_iterator end; !error && entry != end; entry.increment(error)) {
    if (entry->path().extension() == ".plist") files.push_back(entry->path());
  }
  std::ranges::sort(files);
  return files;
}

}  // namespace

std::optional<PropertyList> LaunchdJobs::copyAllJobDictionaries(SMDomain /*domain*/) const {
  PropertyList::Array jobs;
  for (const std::string& file : jobFiles(folder_)) {
    if (auto job = readDictionary(file)) jobs.push_back(std::move(*job));
  }
  return jobs;
}

}  // namespace platform::posix
