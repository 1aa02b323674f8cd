#include "CodeSignature/RequirementEvaluator.h"

#include <algorithm>
#include <optional>
#include <string>

namespace platform::codesignature {
namespace {

using Expression = RequirementExpression;
using Field = RequirementExpression::CertificateField;
using Operation = RequirementMatch::Operation;

bool orders(Operation operation, int comparison) {
  switch (operation) {
    case Operation::less:
      return comparison < 0;
    case Operation::greater:
      return comparison > 0;
    case Operation::lessOrEqual:
      return comparison <= 0;
    case Operation::greaterOrEqual:
      return comparison >= 0;
    default:
      return comparison == 0;
  }
}

bool matchesText(const RequirementMatch& match, const std::string& text) {
  const std::string& value = match.value;
  switch (match.operation) {
    case Operation::exists:
      return true;
    case Operation::absent:
      return false;
    case Operation::equal:
      return text == value;
    // The platform's search never finds the empty text.
    case Operation::contains:
      return !value.empty() && text.contains(value);
    case Operation::beginsWith:
      return !value.empty() && text.starts_with(value);
    case Operation::endsWith:
      return !value.empty() && text.ends_with(value);
    default:
      return orders(match.operation, compareNumerically(text, value));
  }
}

/// Only texts have an order or parts. An array matches when one of its elements does.
bool matchesValue(const RequirementMatch& match, const PropertyList* value) {
  if (value == nullptr) return match.operation == Operation::absent;
  if (match.operation == Operation::absent) return false;
  if (const auto* array = value->as<PropertyList::Array>()) {
    const auto matches = [&match](const PropertyList& element) { return matchesValue(match, &element); };
    if (std::ranges::any_of(*array, matches)) return true;
  }
  if (match.operation == Operation::exists) {
    const auto* boolean = value->as<bool>();
    return boolean == nullptr || *boolean;
  }
  const std::string* text = value->string();
  return text != nullptr && !match.isTimestamp && matchesText(match, *text);
}

/// For what a certificate has or has not, and no value beyond that.
bool matchesPresence(const RequirementMatch& match, bool present) {
  if (match.operation == Operation::absent) return !present;
  return match.operation == Operation::exists && present;
}

bool matchesTime(const RequirementMatch& match, const std::optional<std::string>& time) {
  if (!match.isTimestamp) return matchesPresence(match, time.has_value());
  constexpr std::size_t length = 15;
  return time && time->size() == length && orders(match.operation, time->compare(match.value));
}

class Evaluator {
 public:
  explicit Evaluator(const RequirementSubject& subject) : subject_(subject) {}

  // The depth of the tree is bounded by the compiler.
  [[nodiscard]] bool evaluate(const Expression& expression) const { return std::visit(*this, expression.node()); }

  bool operator()(const Expression::Constant& constant) const { return constant.value; }
  bool operator()(const Expression::All& all) const {
    return std::ranges::all_of(all.terms, [this](const Expression& term) { return evaluate(term); });
  }
  bool operator()(const Expression::Any& any) const {
    return std::ranges::any_of(any.terms, [this](const Expression& term) { return evaluate(term); });
  }
  bool operator()(const Expression::Not& negation) const { return !evaluate(negation.term.front()); }
  bool operator()(const Expression::Identifier& identifier) const { return subject_.identifier == identifier.value; }
  bool operator()(const Expression::CodeDirectoryHash& hash) const { return subject_.cdhash == hash.value; }
  bool operator()(const Expression::PlatformNumber& number) const { return subject_.platformNumber == number.value; }

  bool operator()(const Expression::AnchorApple& anchor) const {
    if (subject_.chain.empty() || !subject_.anchors.contains(subject_.chain.back())) return false;
    return anchor.generic || isVendorsOwn();
  }

  bool operator()(const Expression::CertificateHash& hash) const {
    const Certificate* certificate = certificateAt(hash.slot);
    return certificate != nullptr && certificate->sha1() == hash.sha1;
  }

  bool operator()(const Field& field) const {
    const Certificate* certificate = certificateAt(field.slot);
    if (field.kind == Field::Kind::timestamp) {
      return matchesTime(field.match, certificate == nullptr ? std::nullopt : certificate->extensionText(field.name));
    }
    if (certificate == nullptr) return false;
    if (field.kind == Field::Kind::extension)
      return matchesPresence(field.match, certificate->hasExtension(field.name));
    if (field.kind == Field::Kind::policy) return matchesPresence(field.match, certificate->hasPolicy(field.name));
    // Of several attributes the last counts; a missing one is not even `absent`.
    const auto values = certificate->subjectAttributes(field.name);
    return !values.empty() && !field.match.isTimestamp && matchesText(field.match, values.back());
  }

  bool operator()(const Expression::InfoPlistValue& info) const {
    return matchesValue(info.match, subject_.infoPlist == nullptr ? nullptr : (*subject_.infoPlist)[info.key]);
  }
  bool operator()(const Expression::EntitlementValue& entitlement) const {
    const auto* entitlements = subject_.entitlements;
    return matchesValue(entitlement.match, entitlements == nullptr ? nullptr : (*entitlements)[entitlement.key]);
  }
  bool operator()(const Expression::Unsupported& /*clause*/) const { return false; }

 private:
  [[nodiscard]] const Certificate* certificateAt(std::int64_t slot) const {
    const auto count = static_cast<std::int64_t>(subject_.chain.size());
    if (slot < 0) slot += count;
    return slot < 0 || slot >= count ? nullptr : &subject_.chain[static_cast<std::size_t>(slot)];
  }

  [[nodiscard]] bool isVendorsOwn() const {
    const Certificate* intermediate = certificateAt(-2);
    if (intermediate == nullptr) return false;
    const auto names = intermediate->subjectAttributes("CN");
    const auto organizations = intermediate->subjectAttributes("O");
    return !names.empty() && names.back() == "Apple Code Signing Certification Authority" && !organizations.empty() &&
           organizations.back() == "Apple Inc." && subject_.chain.front().hasExtension("1.2.840.113635.100.6.22");
  }

  const RequirementSubject& subject_;
};

}  // namespace

bool meets(const RequirementSubject& subject, const RequirementExpression& requirement) {
  return Evaluator(subject).evaluate(requirement);
}

}  // namespace platform::codesignature
