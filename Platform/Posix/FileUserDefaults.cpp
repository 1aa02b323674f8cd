#include "Posix/FileUserDefaults.h"

#include "Posix/RegularFile.h"

#include <cerrno>
#include <mutex>

#include <sys/stat.h>

namespace platform::posix {
namespace {

bool isLink(const std::string& path) {
  struct stat status{};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

class FileUserDefaults final : public UserDefaults {
 public:
  FileUserDefaults(std::string folder, std::string_view domain, std::shared_ptr<std::mutex> mutex)
      : mutex_(std::move(mutex)), folder_(std::move(folder)), path_(folder_ + "/" + std::string(domain) + ".plist") {}

  [[nodiscard]] std::optional<PropertyList> object(std::string_view key) const override {
    const std::scoped_lock lock(*mutex_);
    const auto values = load();
    if (!values) return std::nullopt;
    const auto entry = values->find(key);
    if (entry == values->end()) return std::nullopt;
    return entry->second;
  }

  void set(const PropertyList& value, std::string_view key) override {
    const std::scoped_lock lock(*mutex_);
    auto values = load();
    if (!values || makeFolders(folder_, 0700) != 0) return;
    values->insert_or_assign(std::string(key), value);
    const std::string bytes = PropertyList(std::move(*values)).serialized(PropertyList::Format::binary);
    if (bytes.size() <= PropertyList::maximumBytes) replaceFile(path_, bytes);
  }

 private:
  /// Absent when a file is there that cannot be read: what it holds must not be written over.
  [[nodiscard]] std::optional<PropertyList::Dictionary> load() const {
    const auto bytes = readRegularFile(path_, PropertyList::maximumBytes);
    // A link that leads nowhere now may lead to the domain again later.
    if (!bytes && (bytes.error() != ENOENT || isLink(path_))) return std::nullopt;
    if (!bytes || bytes->empty()) return PropertyList::Dictionary();
    const auto plist = PropertyList::parse(*bytes);
    return plist && plist->dictionary() != nullptr ? std::optional(*plist->dictionary()) : std::nullopt;
  }

  std::shared_ptr<std::mutex> mutex_;
  std::string folder_;
  std::string path_;
};

}  // namespace

FileUserDefaultsDomains::FileUserDefaultsDomains(const Machine& machine, std::string_view standardDomain)
    : folder_(machine.home + "/Library/Preferences"),
      standard_(std::make_shared<FileUserDefaults>(folder_, standardDomain, mutex_)) {}

std::shared_ptr<UserDefaults> FileUserDefaultsDomains::standard() {
  return standard_;
}

std::shared_ptr<UserDefaults> FileUserDefaultsDomains::suite(std::string_view name) {
  if (name.empty() || name.contains('/') || name.contains('\0')) return nullptr;
  return std::make_shared<FileUserDefaults>(folder_, name, mutex_);
}

}  // namespace platform::posix
