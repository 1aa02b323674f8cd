#include "Platform/URL.h"

#include <algorithm>
#include <cctype>

#include <uriparser/Uri.h>

namespace platform {
namespace {

bool isAlpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isHex(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isUnreserved(char c) {
  return isAlpha(c) || isDigit(c) || std::string_view("-._~").contains(c);
}

std::string percentEncoded(std::string_view text, std::string_view allowed) {
  static constexpr std::string_view digits = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    if (isUnreserved(c) || allowed.contains(c)) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += {'%', digits[byte >> 4U], digits[byte & 15U]};
    }
  }
  return encoded;
}

bool isLegal(std::string_view text, std::string_view allowed) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      if (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2])) return false;
    } else if (!isUnreserved(text[i]) && !allowed.contains(text[i])) {
      return false;
    }
  }
  return true;
}

/// The component as it stands when it is legal, else all of it encoded.
std::string repaired(std::string_view component, std::string_view allowed) {
  return isLegal(component, allowed) ? std::string(component) : percentEncoded(component, allowed);
}

std::string percentDecoded(std::string_view text) {
  const auto value = [](char c) -> unsigned {
    if (isDigit(c)) return static_cast<unsigned>(c - '0');
    return static_cast<unsigned>((c | 0x20) - 'a') + 10U;
  };
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2])) {
      decoded += static_cast<char>((value(text[i + 1]) << 4U) | value(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

bool isScheme(std::string_view text) {
  return !text.empty() && isAlpha(text.front()) &&
         std::ranges::all_of(text, [](char c) { return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.'; });
}

/// Takes the part of `rest` before the first of `delimiters` off it.
std::string_view taken(std::string_view& rest, std::string_view delimiters) {
  const std::string_view part = rest.substr(0, rest.find_first_of(delimiters));
  rest.remove_prefix(part.size());
  return part;
}

/// The text with its illegal characters encoded, or absent when a part that cannot be repaired is illegal.
std::optional<std::string> repairedReference(std::string_view text) {
  std::string result;
  std::string_view rest = text;
  if (const auto colon = rest.find_first_of(":/?#"); colon != std::string_view::npos && rest[colon] == ':') {
    if (!isScheme(rest.substr(0, colon))) return std::nullopt;
    result += rest.substr(0, colon + 1);
    rest.remove_prefix(colon + 1);
  }
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    result += "//";
    std::string_view authority = taken(rest, "/?#");
    if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
      result += repaired(authority.substr(0, at), "!$&'()*+,;=:") + "@";
      authority.remove_prefix(at + 1);
    }
    if (!isLegal(authority, "!$&'()*+,;=:[]")) return std::nullopt;
    result += authority;
  }
  result += repaired(taken(rest, "?#"), "!$&'()*+,;=:@/");
  if (rest.starts_with('?')) {
    rest.remove_prefix(1);
    result += "?" + repaired(taken(rest, "#"), "!$&'()*+,;=:@/?");
  }
  if (rest.starts_with('#')) result += "#" + repaired(rest.substr(1), "!$&'()*+,;=:@/?");
  return result;
}

class ParsedUri {
 public:
  explicit ParsedUri(const std::string& text)
      : valid_(uriParseSingleUriExA(&uri_, text.data(), text.data() + text.size(), nullptr) == URI_SUCCESS) {}
  ParsedUri(const ParsedUri&) = delete;
  ParsedUri& operator=(const ParsedUri&) = delete;
  ~ParsedUri() {
    if (valid_) uriFreeUriMembersA(&uri_);
  }

  [[nodiscard]] const UriUriA* get() const { return valid_ ? &uri_ : nullptr; }

 private:
  UriUriA uri_{};
  bool valid_;
};

std::string textOf(const UriTextRangeA& range) {
  return range.first == nullptr ? std::string() : std::string(range.first, range.afterLast);
}

std::string pathOf(const UriUriA& uri) {
  const bool hasHost = uri.hostText.first != nullptr || uri.hostData.ip4 != nullptr || uri.hostData.ip6 != nullptr;
  std::string path;
  for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next) {
    if (segment != uri.pathHead || uri.absolutePath != 0 || hasHost) path += '/';
    path += percentDecoded(textOf(segment->text));
  }
  if (uri.pathHead == nullptr && uri.absolutePath != 0) path = "/";
  return withoutTrailingSlash(std::move(path));
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
  if (text.empty()) return std::nullopt;
  auto repairedText = repairedReference(text);
  if (!repairedText) return std::nullopt;
  URL url;
  url.text_ = std::move(*repairedText);
  const ParsedUri parsed(url.text_);
  if (parsed.get() == nullptr) return std::nullopt;
  url.scheme_ = textOf(parsed.get()->scheme);
  std::ranges::transform(url.scheme_, url.scheme_.begin(), [](unsigned char c) { return std::tolower(c); });
  url.host_ = textOf(parsed.get()->hostText);
  url.path_ = pathOf(*parsed.get());
  return url;
}

URL URL::fileURL(std::string_view path, PathKind kind) {
  URL url;
  url.scheme_ = "file";
  url.path_ = withoutTrailingSlash(std::string(path));
  url.text_ = "file://" + percentEncoded(url.path_, "!$&'()*+,;=:@/");
  if (kind == PathKind::directory && !url.text_.ends_with('/')) url.text_ += '/';
  return url;
}

std::string URL::lastPathComponent() const {
  if (path_ == "/") return path_;
  return path_.substr(path_.rfind('/') + 1);  // npos + 1 is 0: a path of one component
}

std::string URL::pathExtension() const {
  const std::string name = lastPathComponent();
  const auto point = name.rfind('.');
  if (point == std::string::npos || point == 0 || point + 1 == name.size()) return {};
  return name.substr(point + 1);
}

URL URL::appendingPathComponent(std::string_view name, PathKind kind) const {
  return fileURL(path_ == "/" ? "/" + std::string(name) : path_ + "/" + std::string(name), kind);
}

}  // namespace platform
