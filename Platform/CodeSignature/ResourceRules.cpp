#include "CodeSignature/ResourceRules.h"

#include <clocale>

#include <regex.h>

namespace platform::codesignature {
namespace {

constexpr std::size_t maximumRules = 256;
constexpr std::size_t maximumPattern = 1024;

/// Makes the C locale the thread's own while it lives.
class PlainLocale {
 public:
  PlainLocale() : locale_(::newlocale(LC_ALL_MASK, "C", nullptr)), previous_(::uselocale(locale_)) {}
  PlainLocale(const PlainLocale&) = delete;
  PlainLocale& operator=(const PlainLocale&) = delete;
  ~PlainLocale() {
    ::uselocale(previous_);
    ::freelocale(locale_);
  }

 private:
  locale_t locale_;
  locale_t previous_;
};

bool isHarmless(const std::string& pattern) {
  if (pattern.size() > maximumPattern || pattern.contains('\0')) return false;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '{') return false;
    if (pattern[i] != '\\') continue;
    ++i;
    if (i < pattern.size() && pattern[i] >= '1' && pattern[i] <= '9') return false;
  }
  return true;
}

bool flag(const PropertyList& rule, std::string_view key) {
  const PropertyList* value = rule[key];
  const bool* boolean = value == nullptr ? nullptr : value->as<bool>();
  return boolean != nullptr && *boolean;
}

std::optional<ResourceRules::Verdict> verdictOf(const PropertyList& rule) {
  ResourceRules::Verdict verdict;
  if (const bool* included = rule.as<bool>()) {
    verdict.omit = !*included;
    return verdict;
  }
  if (rule.dictionary() == nullptr) return std::nullopt;
  if (const PropertyList* weight = rule["weight"]) {
    const auto number = weight->number();
    if (!number) return std::nullopt;
    verdict.weight = *number;
  }
  verdict.omit = flag(rule, "omit");
  verdict.optional = flag(rule, "optional");
  verdict.nested = flag(rule, "nested");
  return verdict;
}

}  // namespace

struct ResourceRules::Rule {
  Rule(const std::string& text, Verdict value)
      : verdict(value), isCompiled(::regcomp(&pattern, text.c_str(), REG_EXTENDED | REG_NOSUB) == 0) {}
  Rule(const Rule&) = delete;
  Rule& operator=(const Rule&) = delete;
  ~Rule() {
    if (isCompiled) ::regfree(&pattern);
  }
  [[nodiscard]] bool matches(const std::string& path) const {
    return ::regexec(&pattern, path.c_str(), 0, nullptr, 0) == 0;
  }

  Verdict verdict;
  regex_t pattern = {};
  bool isCompiled;
};

ResourceRules::ResourceRules() = default;
ResourceRules::ResourceRules(ResourceRules&&) noexcept = default;
ResourceRules& ResourceRules::operator=(ResourceRules&&) noexcept = default;
ResourceRules::~ResourceRules() = default;

Result<ResourceRules> ResourceRules::parse(const PropertyList& rules) {
  const auto* entries = rules.dictionary();
  if (entries == nullptr || entries->size() > maximumRules) return failed(errSecCSResourceRulesInvalid);
  const PlainLocale locale;
  ResourceRules result;
  for (const auto& [pattern, value] : *entries) {
    const auto verdict = verdictOf(value);
    if (!verdict || !isHarmless(pattern)) return failed(errSecCSResourceRulesInvalid);
    result.rules_.push_back(std::make_unique<Rule>(pattern, *verdict));
    if (!result.rules_.back()->isCompiled) return failed(errSecCSResourceRulesInvalid);
  }
  return result;
}

std::optional<ResourceRules::Verdict> ResourceRules::verdict(const std::string& path) const {
  std::optional<Verdict> best;
  for (const auto& rule : rules_) {
    const Verdict& verdict = rule->verdict;
    const bool wins =
        !best || verdict.weight > best->weight || (verdict.weight == best->weight && best->omit && !verdict.omit);
    if (wins && rule->matches(path)) best = verdict;
  }
  return best;
}

}  // namespace platform::codesignature
