#pragma once

#include "Platform/UserDefaults.h"
#include "Posix/Machine.h"

#include <memory>
#include <mutex>
#include <string>

namespace platform::posix {

/// Domains as files: $HOME/Library/Preferences/<domain>.plist, read in either format, written in the binary one by
/// replacing the file. Two processes that write one domain at the same moment may lose one of the two values.
class FileUserDefaultsDomains final : public UserDefaultsDomains {
 public:
  FileUserDefaultsDomains(const Machine& machine, std::string_view standardDomain);

  std::shared_ptr<UserDefaults> standard() override;
  std::shared_ptr<UserDefaults> suite(std::string_view name) override;

 private:
  std::string folder_;
  std::shared_ptr<std::mutex> mutex_ = std::make_shared<std::mutex>();  // one for all domains: they may be the same
  std::shared_ptr<UserDefaults> standard_;
};

}  // namespace platform::posix
