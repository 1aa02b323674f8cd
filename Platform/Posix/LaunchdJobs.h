#pragma once

#include "Platform/ServiceManagement.h"

#include <string>

namespace platform::posix {

/// The loaded jobs are the property lists in the folder `launchd` of the temporary directory, by file name; one that
/// cannot be read is skipped.
class LaunchdJobs final : public ServiceManagement {
 public:
  explicit LaunchdJobs(const std::string& temporaryDirectory) : folder_(temporaryDirectory + "/launchd") {}

  [[nodiscard]] std::optional<PropertyList> copyAllJobDictionaries(SMDomain domain) const override;

 private:
  std::string folder_;
};

}  // namespace platform::posix
