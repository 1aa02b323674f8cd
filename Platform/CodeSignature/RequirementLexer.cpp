#include "CodeSignature/RequirementLexer.h"

#include <algorithm>
#include <array>
#include <optional>

#include <fmt/format.h>

namespace platform::codesignature {
namespace {

using Kind = RequirementToken::Kind;

// The C library's classes depend on the locale.
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isAlphanumeric(char c) {
  return isDigit(c) || isLetter(c);
}
bool isHexDigit(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isPathCharacter(char c) {
  return isAlphanumeric(c) || c == '_' || c == '-' || c == '.';
}

int hexValue(char c) {
  if (isDigit(c)) return c - '0';
  return (c >= 'a' ? c - 'a' : c - 'A') + 10;
}

std::string bytesOfHex(std::string_view digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<char>(hexValue(digits[i]) * 16 + hexValue(digits[i + 1])));
  }
  return bytes;
}

class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  std::expected<std::vector<RequirementToken>, std::string> run() {
    std::vector<RequirementToken> tokens;
    while (skipBlanks()) {
      begin_ = position_;
      if (atEnd()) {
        tokens.push_back(token(Kind::end, "end of text"));
        return tokens;
      }
      auto next = read();
      if (!next) break;
      tokens.push_back(std::move(*next));
    }
    return std::unexpected(error());
  }

 private:
  static constexpr std::size_t hashDigits = 40;

  [[nodiscard]] bool atEnd() const { return position_ >= text_.size(); }
  [[nodiscard]] char peek(std::size_t ahead = 0) const {
    return position_ + ahead < text_.size() ? text_[position_ + ahead] : '\0';
  }
  [[nodiscard]] bool startsWith(std::string_view prefix) const { return text_.substr(position_).starts_with(prefix); }

  template <class Class>
  std::string_view takeWhile(Class belongs) {
    const std::size_t begin = position_;
    while (!atEnd() && belongs(peek())) ++position_;
    return text_.substr(begin, position_ - begin);
  }

  /// False when a comment has no end.
  bool skipBlanks() {
    while (true) {
      takeWhile([](char c) { return c == ' ' || c == '\t' || c == '\n'; });
      if (startsWith("#") || startsWith("//")) {
        takeWhile([](char c) { return c != '\n'; });
      } else if (startsWith("/*")) {
        if (!skipBlockComment()) return false;
      } else {
        return true;
      }
    }
  }

  /// A star is read together with the character after it, so "**/" does not end a comment.
  bool skipBlockComment() {
    position_ += 2;
    while (!atEnd()) {
      if (startsWith("*/")) {
        position_ += 2;
        return true;
      }
      position_ += peek() == '*' ? 2 : 1;
    }
    return false;
  }

  std::optional<RequirementToken> read() {
    if (startsWith("H\"")) return readHash();
    if (isLetter(peek())) return readWord();
    if (startsWith("0x")) return readHex();
    if (isDigit(peek())) return token(Kind::integer, std::string(takeWhile(isDigit)));
    if (peek() == '"') return readString();
    if (peek() == '/') return readPath();
    return readSymbol();
  }

  std::optional<RequirementToken> readHash() {
    position_ += 2;
    const auto digits = takeWhile(isHexDigit);
    if (digits.size() != hashDigits || peek() != '"') return std::nullopt;
    ++position_;
    return token(Kind::hash, bytesOfHex(digits));
  }

  std::optional<RequirementToken> readWord() {
    std::string word(takeWhile(isAlphanumeric));
    while (peek() == '.' && isAlphanumeric(peek(1))) {
      ++position_;
      word += '.';
      word += isDigit(peek()) ? takeWhile(isDigit) : takeWhile(isAlphanumeric);
    }
    return token(Kind::word, std::move(word));
  }

  std::optional<RequirementToken> readHex() {
    position_ += 2;
    const auto digits = takeWhile(isHexDigit);
    if (digits.empty() || digits.size() % 2 != 0) return std::nullopt;
    return token(Kind::hex, bytesOfHex(digits));
  }

  std::optional<RequirementToken> readString() {
    std::string value;
    for (++position_; !atEnd(); ++position_) {
      if (peek() == '"') {
        ++position_;
        return token(Kind::string, std::move(value));
      }
      if (peek() == '\\' && peek(1) != '"') return std::nullopt;
      if (peek() == '\\') ++position_;
      value += peek();
    }
    return std::nullopt;
  }

  std::optional<RequirementToken> readPath() {
    std::size_t parts = 0;
    while (peek() == '/' && isPathCharacter(peek(1))) {
      ++position_;
      takeWhile(isPathCharacter);
      ++parts;
    }
    if (parts < 2) return std::nullopt;
    return token(Kind::path, std::string(text_.substr(begin_, position_ - begin_)));
  }

  std::optional<RequirementToken> readSymbol() {
    static constexpr std::array<std::string_view, 17> symbols = {"==", "<=", ">=", "=>", "=", "<", ">", "(", ")",
                                                                 "[",  "]",  "!",  ";",  "*", "~", "-", ","};
    const auto* found = std::ranges::find_if(symbols, [this](std::string_view symbol) { return startsWith(symbol); });
    if (found == symbols.end()) return std::nullopt;
    position_ += found->size();
    return token(Kind::symbol, std::string(*found));
  }

  RequirementToken token(Kind kind, std::string text) {
    const auto [line, column] = placeOf(begin_);
    return {kind, std::move(text), line, column};
  }

  struct Place {
    std::size_t line;
    std::size_t column;
  };
  /// Counts on from the place asked for last, which must not lie behind this one.
  Place placeOf(std::size_t position) {
    for (; counted_ < position; ++counted_) {
      if (text_[counted_] != '\n') continue;
      ++line_;
      lineBegin_ = counted_ + 1;
    }
    return {line_, position - lineBegin_ + 1};
  }
  std::string error() {
    const auto [line, column] = placeOf(std::min(position_, text_.size()));
    if (atEnd()) return requirementError(line, column, "unexpected end of text");
    const auto unit = static_cast<unsigned char>(peek());
    return requirementError(line, column, fmt::format("unexpected char: 0x{:02X}", unit));
  }

  std::string_view text_;
  std::size_t position_ = 0;
  std::size_t begin_ = 0;
  std::size_t counted_ = 0;  // up to where lines are counted
  std::size_t line_ = 1;
  std::size_t lineBegin_ = 0;
};

}  // namespace

std::string requirementError(std::size_t line, std::size_t column, std::string_view what) {
  return fmt::format("line {}:{}: {}", line, column, what);
}

std::expected<std::vector<RequirementToken>, std::string> requirementTokens(std::string_view text) {
  constexpr std::size_t maximumText = std::size_t{64} << 10U;
  if (text.size() > maximumText) return std::unexpected(requirementError(1, 1, "text too long"));
  return Lexer(text).run();
}

}  // namespace platform::codesignature
