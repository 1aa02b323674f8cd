#include "CodeSignature/Requirement.h"
#include "CodeSignature/RequirementEvaluator.h"
#include "FuzzMaker.h"
#include "FuzzSupport.h"

#include <array>

#include <fmt/format.h>

namespace {

using namespace platform;
using namespace platform::codesignature;
using Expression = RequirementExpression;
using Field = RequirementExpression::CertificateField;

std::string literal(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) result += c == '"' ? "\\\"" : std::string(1, c);
  return result + '"';
}

/// Texts and hexadecimal bytes both become values; only the latter can be anything.
std::string printed(const RequirementMatch& match) {
  using enum RequirementMatch::Operation;
  std::string value = match.value.empty() ? "\"\"" : "0x" + fuzz::hex(viewOf(match.value));
  if (match.isTimestamp) value = "timestamp " + literal(match.value);
  switch (match.operation) {
    case exists:
      return " exists";
    case absent:
      return " absent";
    case equal:
      return " = " + value;
    case contains:
      return " ~ " + value;
    case beginsWith:
      return " = " + value + " *";
    case endsWith:
      return " = * " + value;
    case less:
      return " < " + value;
    case greater:
      return " > " + value;
    case lessOrEqual:
      return " <= " + value;
    case greaterOrEqual:
      break;
  }
  return " >= " + value;
}

/// Writes a tree as a text of the requirement language.
struct Printer {
  std::string operator()(const Expression::Constant& constant) const { return constant.value ? "always" : "never"; }
  std::string operator()(const Expression::All& all) const { return joined(all.terms, " and "); }
  std::string operator()(const Expression::Any& any) const { return joined(any.terms, " or "); }
  std::string operator()(const Expression::Not& negation) const { return "! " + term(negation.term.front()); }
  std::string operator()(const Expression::Identifier& name) const { return "identifier " + literal(name.value); }
  std::string operator()(const Expression::CodeDirectoryHash& hash) const {
    return fmt::format("cdhash H\"{}\"", fuzz::hex(hash.value));
  }
  std::string operator()(const Expression::PlatformNumber& number) const {
    return fmt::format("platform = {}", number.value);
  }
  std::string operator()(const Expression::AnchorApple& anchor) const {
    return anchor.generic ? "anchor apple generic" : "anchor apple";
  }
  std::string operator()(const Expression::CertificateHash& hash) const {
    return fmt::format("certificate {} = H\"{}\"", hash.slot, fuzz::hex(hash.sha1));
  }
  std::string operator()(const Field& field) const {
    static constexpr std::array kinds = {"subject", "field", "policy", "timestamp"};
    const std::string name = fmt::format("{}.{}", kinds[static_cast<std::size_t>(field.kind)], field.name);
    return fmt::format("certificate {}[{}]{}", field.slot, literal(name), printed(field.match));
  }
  std::string operator()(const Expression::InfoPlistValue& info) const {
    return fmt::format("info[{}]{}", literal(info.key), printed(info.match));
  }
  std::string operator()(const Expression::EntitlementValue& entitlement) const {
    return fmt::format("entitlement[{}]{}", literal(entitlement.key), printed(entitlement.match));
  }
  std::string operator()(const Expression::Unsupported& /*clause*/) const { return "notarized"; }

  static std::string term(const Expression& expression) {
    const std::string text = std::visit(Printer(), expression.node());
    return std::holds_alternative<Expression::Any>(expression.node()) ? "(" + text + ")" : text;
  }
  static std::string joined(const Expression::List& terms, std::string_view separator) {
    std::string text;
    for (const auto& one : terms) text += (text.empty() ? "" : std::string(separator)) + term(one);
    return text;
  }
};

const PropertyList& dictionary() {
  static const PropertyList entries(PropertyList::Dictionary{
      {"text", "1.10"}, {"yes", true}, {"no", false}, {"list", PropertyList::Array{"a", "b"}}, {"number", 5}});
  return entries;
}

}  // namespace

/// Requirement texts, which nested code brings with it. What compiled reads the same after it has been written down,
/// and can be asked of code.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto compiled = compileRequirement(fuzz::textOf(data, size));
  if (!compiled) return 0;
  const std::string text = std::visit(Printer(), (*compiled)->node());
  constexpr std::size_t longestText = std::size_t{64} << 10U;
  if (text.size() > longestText) return 0;
  const auto again = compileRequirement(text);
  fuzz::require(again && std::visit(Printer(), (*again)->node()) == text);
  static const CertificateChain chain = certificatesOfPEM(fuzz::makersRoot);
  static const Anchors anchors = Anchors::fromPEM(fuzz::makersRoot).value();
  const RequirementSubject subject{.chain = chain,
                                   .anchors = anchors,
                                   .identifier = "com.corvane.ProjectOrvik",
                                   .cdhash = Bytes(20, 7),
                                   .platformNumber = 1,
                                   .infoPlist = &dictionary(),
                                   .entitlements = &dictionary()};
  fuzz::require(meets(subject, **compiled) == meets(subject, **again));
  return 0;
}
