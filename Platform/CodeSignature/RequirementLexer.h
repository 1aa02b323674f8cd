#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>
#include <vector>

namespace platform::codesignature {

/// One token of a requirement text. White space is blank, tab and line feed only; comments are `# …`, `// …` and
/// `/* … */`. Keywords are words here; the parser knows which are reserved.
struct RequirementToken {
  enum class Kind { word, string, integer, hex, hash, path, symbol, end };
  Kind kind;
  /// The word, symbol or digits as written; a string without quotes and escapes; the bytes of hex digits.
  std::string text;
  std::size_t line;
  std::size_t column;

  [[nodiscard]] bool is(std::string_view expected) const {
    return (kind == Kind::word || kind == Kind::symbol) && text == expected;
  }
};

/// "line 1:9: what went wrong", lines and columns counted from one.
[[nodiscard]] std::string requirementError(std::size_t line, std::size_t column, std::string_view what);

/// All tokens of the text, the last of kind `end`; or the message of the first error.
[[nodiscard]] std::expected<std::vector<RequirementToken>, std::string> requirementTokens(std::string_view text);

}  // namespace platform::codesignature
