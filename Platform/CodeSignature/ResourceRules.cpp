#include "CodeSignature/ResourceRules.h"

#include "Platform/UTF8.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <string_view>
#include <utility>

#include <re2/re2.h>

namespace platform::codesignature {
namespace {

constexpr std::size_t maximumRules = 256;
constexpr std::size_t maximumPattern = 1024;
/// Bytes that a compiled pattern and the states of its matching may take: the longest of the usual rules needs a
/// quarter. Where there is not room for the states a text is matched without them, more slowly.
constexpr std::int64_t maximumMemory = std::int64_t{256} << 10U;

re2::RE2::Options posixSyntax() {
  re2::RE2::Options options;
  options.set_posix_syntax(true);
  options.set_one_line(true);
  options.set_dot_nl(true);
  options.set_log_errors(false);
  options.set_max_mem(maximumMemory);
  return options;
}

/// The characters of Latin-1 that the bytes stand for, in UTF-8: a byte is a character then, whatever it is. RE2's own
/// Latin-1 mode forgets itself where alternatives begin alike.
std::string charactersOf(std::string_view bytes) {
  std::string result;
  result.reserve(bytes.size());
  for (const char byte : bytes) appendScalar(result, static_cast<std::uint8_t>(byte));
  return result;
}

/// A pattern in the words of RE2, which takes POSIX extended syntax but for two things: it knows escapes of its own,
/// and it escapes inside brackets too.
class Translation {
 public:
  /// The translated pattern; absent for a pattern that is refused.
  static std::optional<std::string> of(const std::string& pattern) {
    if (pattern.size() > maximumPattern || pattern.contains('\0')) return std::nullopt;
    Translation translation(pattern);
    while (!translation.rest_.empty()) {
      if (!translation.takeElement()) return std::nullopt;
    }
    return std::move(translation.result_);
  }

 private:
  explicit Translation(std::string_view pattern) : rest_(pattern) {}

  void take(std::size_t count) {
    result_.append(rest_.substr(0, count));
    rest_.remove_prefix(count);
  }

  bool takeElement() {
    const bool isBehindAnchor = std::exchange(isBehindAnchor_, rest_.front() == '^');
    switch (rest_.front()) {
      case '{':
        return false;
      case '*':
      case '+':
      case '?':
        if (isBehindAnchor) return false;
        take(1);
        return true;
      case '\\':
        return takeEscape();
      case '[':
        return takeBracketExpression();
      default:
        take(1);
        return true;
    }
  }

  bool takeEscape() {
    constexpr std::string_view anchorsElsewhere = "<>`'";
    rest_.remove_prefix(1);
    if (rest_.empty() || anchorsElsewhere.contains(rest_.front())) return false;
    const auto escaped = static_cast<unsigned char>(rest_.front());
    if (std::isalnum(escaped) != 0) return false;
    if (std::ispunct(escaped) != 0 && escaped != '_') result_ += '\\';
    take(1);
    return true;
  }

  bool takeBracketExpression() {
    take(1);
    if (rest_.starts_with('^')) take(1);
    // A closing bracket that comes first stands for itself.
    if (rest_.starts_with(']')) take(1);
    for (bool isFirst = true; !rest_.empty(); isFirst = false) {
      if (rest_.starts_with(']')) {
        take(1);
        return true;
      }
      if (rest_.starts_with("[.") || rest_.starts_with("[=")) return false;
      if (rest_.starts_with("-[:") && !isFirst) return false;
      if (rest_.starts_with("[:")) {
        if (!takeCharacterClass()) return false;
        continue;
      }
      if (rest_.starts_with('\\')) result_ += '\\';
      take(1);
    }
    return false;
  }

  /// Those of POSIX; RE2 has more.
  bool takeCharacterClass() {
    constexpr std::array names = {"alnum", "alpha", "blank", "cntrl", "digit", "graph",
                                  "lower", "print", "punct", "space", "upper", "xdigit"};
    const std::size_t end = rest_.find(":]", 2);
    if (end == std::string_view::npos) return false;
    if (std::ranges::find(names, rest_.substr(2, end - 2)) == names.end()) return false;
    take(end + 2);
    return true;
  }

  std::string_view rest_;
  std::string result_;
  bool isBehindAnchor_ = false;
};

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
  Rule(const std::string& translated, Verdict value) : pattern(translated, posixSyntax()), verdict(value) {}

  re2::RE2 pattern;
  Verdict verdict;
};

ResourceRules::ResourceRules() = default;
ResourceRules::ResourceRules(ResourceRules&&) noexcept = default;
ResourceRules& ResourceRules::operator=(ResourceRules&&) noexcept = default;
ResourceRules::~ResourceRules() = default;

Result<ResourceRules> ResourceRules::parse(const PropertyList& rules) {
  const auto* entries = rules.dictionary();
  if (entries == nullptr || entries->size() > maximumRules) return failed(errSecCSResourceRulesInvalid);
  ResourceRules result;
  for (const auto& [pattern, value] : *entries) {
    const auto verdict = verdictOf(value);
    const auto translated = Translation::of(pattern);
    if (!verdict || !translated) return failed(errSecCSResourceRulesInvalid);
    result.rules_.push_back(std::make_unique<Rule>(charactersOf(*translated), *verdict));
    if (!result.rules_.back()->pattern.ok()) return failed(errSecCSResourceRulesInvalid);
  }
  return result;
}

std::optional<ResourceRules::Verdict> ResourceRules::verdict(const std::string& path) const {
  const std::string text = charactersOf(path);
  std::optional<Verdict> best;
  for (const auto& rule : rules_) {
    const Verdict& verdict = rule->verdict;
    const bool wins =
        !best || verdict.weight > best->weight || (verdict.weight == best->weight && best->omit && !verdict.omit);
    if (wins && re2::RE2::PartialMatch(text, rule->pattern)) best = verdict;
  }
  return best;
}

}  // namespace platform::codesignature
