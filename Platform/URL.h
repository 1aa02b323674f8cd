#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// A URL as the platform's value type holds it: a parsed text, absolute or a relative reference. Immutable; two URLs
/// are equal when their texts are. Any thread.
///
/// Left out of the real thing: base URLs, query items, and IDNA, so a host that is not plain ASCII does not parse.
class URL {
 public:
  /// Parses an RFC 3986 URI reference. Characters that may not stand in a component are percent-encoded first, the
  /// whole component with them, as the platform's parser does since macOS 14. Absent: the empty text, a prefix before
  /// the first colon that is no scheme, a port that is no number, a malformed bracket, a host with a malformed escape
  /// or an illegal character.
  static std::optional<URL> parse(std::string_view text);

  /// The file URL of an absolute path; a directory's ends with a slash. The disk is not asked.
  enum class PathKind { file, directory };
  static URL fileURL(std::string_view path, PathKind kind = PathKind::file);

  [[nodiscard]] const std::string& absoluteString() const { return text_; }
  /// In lower case; empty for a relative reference.
  [[nodiscard]] const std::string& scheme() const { return scheme_; }
  [[nodiscard]] const std::string& host() const { return host_; }
  [[nodiscard]] bool isFileURL() const { return scheme_ == "file"; }
  /// Percent-decoded, without a trailing slash (except the root's own).
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string lastPathComponent() const;
  /// Without the point; empty when there is none.
  [[nodiscard]] std::string pathExtension() const;
  /// A file URL one component further down; `name` is taken as it is, not decoded.
  [[nodiscard]] URL appendingPathComponent(std::string_view name, PathKind kind = PathKind::file) const;

  bool operator==(const URL& other) const { return text_ == other.text_; }

 private:
  URL() = default;

  std::string text_;
  std::string scheme_;
  std::string host_;
  std::string path_;
};

}  // namespace platform
