#include "CodeSignature/Certificate.h"
#include "CodeSignature/Requirement.h"
#include "CodeSignature/RequirementLexer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

#include <fmt/format.h>

namespace platform::codesignature {
namespace {

using Expression = RequirementExpression;
using Field = RequirementExpression::CertificateField;
using Kind = RequirementToken::Kind;
using Operation = RequirementMatch::Operation;

constexpr int maximumDepth = 200;

constexpr std::array<std::string_view, 29> reservedWords = {
    "absent",     "always",      "anchor",    "and",     "apple",   "cdhash",    "cert", "certificate",
    "designated", "entitlement", "exists",    "false",   "generic", "guest",     "host", "identifier",
    "info",       "leaf",        "legacy",    "library", "never",   "notarized", "or",   "platform",
    "plugin",     "root",        "timestamp", "true",    "trusted"};

bool isReserved(std::string_view word) {
  return std::ranges::find(reservedWords, word) != reservedWords.end();
}

/// "yyyymmddhhmmssZ", so that times compare as texts.
bool isTime(std::string_view text) {
  constexpr std::size_t digits = 14;
  return text.size() == digits + 1 && text.back() == 'Z' &&
         std::ranges::all_of(text.substr(0, digits), [](char c) { return c >= '0' && c <= '9'; });
}

/// A recursive-descent parser over the tokens, one function per rule of the grammar. The first error is remembered with
/// its place; every function answers nothing once there is one.
class Parser {
 public:
  explicit Parser(std::vector<RequirementToken> tokens) : tokens_(std::move(tokens)) {}

  std::expected<std::shared_ptr<const Expression>, std::string> run() {
    auto expression = parseAny();
    while (expression && accept(";")) {
    }
    if (!expression || peek().kind != Kind::end) return std::unexpected(error());
    return std::make_shared<const Expression>(std::move(*expression));
  }

 private:
  using Parsed = std::optional<Expression>;

  [[nodiscard]] const RequirementToken& peek(std::size_t ahead = 0) const {
    return tokens_[std::min(position_ + ahead, tokens_.size() - 1)];
  }
  const RequirementToken& take() { return tokens_[position_ + 1 < tokens_.size() ? position_++ : position_]; }
  bool accept(std::string_view text) {
    if (!peek().is(text)) return false;
    take();
    return true;
  }
  bool acceptAny(std::string_view first, std::string_view second) { return accept(first) || accept(second); }

  [[nodiscard]] std::string error() const {
    return requirementError(peek().line, peek().column, fmt::format("unexpected token: {}", peek().text));
  }

  Parsed parseAny() {
    Expression::List terms;
    do {
      auto term = parseAll();
      if (!term) return std::nullopt;
      terms.push_back(std::move(*term));
    } while (accept("or"));
    return Expression(Expression::Any{std::move(terms)});
  }

  Parsed parseAll() {
    Expression::List terms;
    do {
      auto term = parsePrimary();
      if (!term) return std::nullopt;
      terms.push_back(std::move(*term));
    } while (accept("and"));
    return Expression(Expression::All{std::move(terms)});
  }

  Parsed parsePrimary() {
    if (++depth_ > maximumDepth) return std::nullopt;
    auto parsed = parsePrimaryInside();
    --depth_;
    return parsed;
  }

  Parsed parsePrimaryInside() {
    if (accept("(")) return parseParenthesized();
    if (accept("!")) return parseNot();
    if (acceptAny("always", "true")) return Expression(Expression::Constant{true});
    if (acceptAny("never", "false")) return Expression(Expression::Constant{false});
    if (acceptAny("notarized", "legacy")) return Expression(Expression::Unsupported{});
    if (accept("info")) return parseKeyed<Expression::InfoPlistValue>();
    if (accept("entitlement")) return parseKeyed<Expression::EntitlementValue>();
    if (accept("identifier")) return parseIdentifier();
    if (accept("cdhash")) return parseCodeDirectoryHash();
    if (accept("platform")) return parsePlatform();
    if (accept("anchor")) return parseAnchor();
    if (acceptAny("certificate", "cert")) return parseCertificate();
    return std::nullopt;
  }

  Parsed parseParenthesized() {
    if (peek(1).is(")") && parseText()) {
      take();
      return Expression(Expression::Unsupported{});
    }
    auto inner = parseAny();
    if (!inner || !accept(")")) return std::nullopt;
    return inner;
  }

  Parsed parseNot() {
    auto term = parsePrimary();
    if (!term) return std::nullopt;
    return Expression(Expression::Not{{std::move(*term)}});
  }

  template <class Clause>
  Parsed parseKeyed() {
    auto key = parseBracketed();
    if (!key) return std::nullopt;
    auto match = parseMatch();
    if (!match) return std::nullopt;
    return Expression(Clause{std::move(*key), std::move(*match)});
  }

  Parsed parseIdentifier() {
    accept("=");
    auto value = parseText();
    if (!value) return std::nullopt;
    return Expression(Expression::Identifier{std::move(*value)});
  }

  Parsed parseCodeDirectoryHash() {
    accept("=");
    if (peek().kind != Kind::hash) return std::nullopt;
    return Expression(Expression::CodeDirectoryHash{copyOf(viewOf(take().text))});
  }

  Parsed parsePlatform() {
    accept("=");
    const auto number = parseInteger();
    if (!number) return std::nullopt;
    return Expression(Expression::PlatformNumber{*number});
  }

  Parsed parseAnchor() {
    if (accept("apple")) {
      if (accept("generic")) return Expression(Expression::AnchorApple{true});
      if (parseText()) return Expression(Expression::Unsupported{});
      return Expression(Expression::AnchorApple{false});
    }
    if (accept("generic")) return accept("apple") ? Parsed(Expression(Expression::AnchorApple{true})) : std::nullopt;
    if (accept("trusted")) return Expression(Expression::Unsupported{});
    return parseCertificateTest(-1);
  }

  Parsed parseCertificate() {
    if (accept("trusted")) return Expression(Expression::Unsupported{});
    const auto slot = parseSlot();
    if (!slot) return std::nullopt;
    if (accept("trusted")) return Expression(Expression::Unsupported{});
    return parseCertificateTest(*slot);
  }

  std::optional<std::int32_t> parseSlot() {
    if (accept("leaf")) return 0;
    if (accept("root")) return -1;
    const bool negative = accept("-");
    const auto number = parseInteger();
    if (!number) return std::nullopt;
    return negative ? -*number : *number;
  }

  Parsed parseCertificateTest(std::int32_t slot) {
    if (peek().is("[")) return parseField(slot);
    accept("=");
    if (peek().kind != Kind::hash) return std::nullopt;
    return Expression(Expression::CertificateHash{slot, copyOf(viewOf(take().text))});
  }

  Parsed parseField(std::int32_t slot) {
    const std::size_t begin = position_;
    const auto text = parseBracketed();
    if (!text) return std::nullopt;
    auto field = fieldNamed(*text);
    if (!field) {
      position_ = begin + 1;
      return std::nullopt;
    }
    auto match = parseMatch();
    if (!match) return std::nullopt;
    field->slot = slot;
    field->match = std::move(*match);
    return Expression(std::move(*field));
  }

  static std::optional<Field> fieldNamed(std::string_view text) {
    struct Prefix {
      std::string_view text;
      Field::Kind kind;
    };
    static constexpr std::array<Prefix, 5> prefixes = {{{"subject.", Field::Kind::subject},
                                                        {"field.", Field::Kind::extension},
                                                        {"extension.", Field::Kind::extension},
                                                        {"policy.", Field::Kind::policy},
                                                        {"timestamp.", Field::Kind::timestamp}}};
    for (const auto& prefix : prefixes) {
      if (!text.starts_with(prefix.text)) continue;
      std::string name(text.substr(prefix.text.size()));
      if (prefix.kind != Field::Kind::subject && !isObjectIdentifier(name)) return std::nullopt;
      return Field{0, prefix.kind, std::move(name), {}};
    }
    return std::nullopt;
  }

  std::optional<RequirementMatch> parseMatch() {
    if (accept("exists")) return RequirementMatch{};
    if (accept("absent")) return RequirementMatch{Operation::absent, {}};
    if (acceptAny("=", "==")) return parseEqual();
    if (accept("~")) return parseValue(Operation::contains);
    if (accept("<=")) return parseOrder(Operation::lessOrEqual);
    if (accept(">=")) return parseOrder(Operation::greaterOrEqual);
    if (accept("<")) return parseOrder(Operation::less);
    if (accept(">")) return parseOrder(Operation::greater);
    return RequirementMatch{};
  }

  std::optional<RequirementMatch> parseEqual() {
    if (peek().is("timestamp")) return parseOrder(Operation::equal);
    const bool openStart = accept("*");
    auto match = parseValue(Operation::equal);
    if (!match) return std::nullopt;
    const bool openEnd = accept("*");
    if (openStart) match->operation = openEnd ? Operation::contains : Operation::endsWith;
    if (!openStart && openEnd) match->operation = Operation::beginsWith;
    return match;
  }

  std::optional<RequirementMatch> parseOrder(Operation operation) {
    if (!accept("timestamp")) return parseValue(operation);
    if (peek().kind != Kind::string || !isTime(peek().text)) return std::nullopt;
    return RequirementMatch{operation, take().text, true};
  }

  std::optional<RequirementMatch> parseValue(Operation operation) {
    if (peek().kind == Kind::hex) return RequirementMatch{operation, take().text};
    auto text = parseText();
    if (!text) return std::nullopt;
    return RequirementMatch{operation, std::move(*text)};
  }

  std::optional<std::string> parseBracketed() {
    if (!accept("[")) return std::nullopt;
    auto text = parseText();
    if (!text || !accept("]")) return std::nullopt;
    return text;
  }

  /// A string, or a word that is not reserved.
  std::optional<std::string> parseText() {
    if (peek().kind == Kind::string || (peek().kind == Kind::word && !isReserved(peek().text))) return take().text;
    return std::nullopt;
  }

  std::optional<std::int32_t> parseInteger() {
    if (peek().kind != Kind::integer) return std::nullopt;
    const std::string& digits = peek().text;
    std::int32_t number = 0;
    if (std::from_chars(digits.data(), digits.data() + digits.size(), number).ec != std::errc{}) return std::nullopt;
    take();
    return number;
  }

  std::vector<RequirementToken> tokens_;
  std::size_t position_ = 0;
  int depth_ = 0;
};

}  // namespace

std::expected<std::shared_ptr<const RequirementExpression>, std::string> compileRequirement(std::string_view text) {
  auto tokens = requirementTokens(text);
  if (!tokens) return std::unexpected(std::move(tokens.error()));
  return Parser(std::move(*tokens)).run();
}

}  // namespace platform::codesignature
