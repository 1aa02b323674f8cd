#pragma once

#include <expected>
#include <string>
#include <vector>

namespace tools {

/// The extended attributes of a file as a Mac names them; here attribute NAME is the Linux attribute user.NAME. Links
/// are followed. A missing attribute is ENODATA, also on a file that cannot have any (another file system, a fifo).
class ExtendedAttributes {
 public:
  explicit ExtendedAttributes(std::string machinePath) : path_(std::move(machinePath)) {}

  /// 0, or the errno with which the file itself cannot be used.
  [[nodiscard]] int check() const;

  /// Sorted by their bytes.
  [[nodiscard]] std::expected<std::vector<std::string>, int> names() const;
  [[nodiscard]] std::expected<std::string, int> value(const std::string& name) const;

  /// Both return 0 or the errno.
  int set(const std::string& name, const std::string& value) const;
  int remove(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace tools
